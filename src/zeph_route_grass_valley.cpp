// Process entry and the glue between the subsystems.
#include "app/process.h"
#include "router/exchange.h"
#include "service/dispatcher.h"

int main(int argc, char** argv) {
  // Waits for the switcher serve the parent through the command dispatcher;
  // the router link reaches it only through this handler.
  set_parent_poll_handler(serve_parent_during_wait);
  return process_main(argc, argv);
}
