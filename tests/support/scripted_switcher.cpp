#include "support/scripted_switcher.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "base/config.h"
#include "base/flags.h"
#include "model/tables.h"
#include "parent/channel.h"
#include "router/connection.h"
#include "router/exchange.h"
#include "router/protocol.h"
#include "router/receive.h"
#include "service/dispatcher.h"
#include "service/route_queue.h"
#include "sync/polling.h"

scripted_switcher sw;

void SwitcherTest::SetUp() {
  reset_configuration();
  reset_process_flags();
  reset_router_tables();
  reset_route_queues();
  reset_dispatcher();
  (void)stderr_of(connection_reset_for_test);
  receive_reset_for_test();
  set_next_status_poll(0);
  sw = scripted_switcher{};
  sw.listener = listen_loopback();
  ASSERT_GE(sw.listener.fd, 0);
  connection_set_target_for_test("127.0.0.1", sw.listener.port);
  set_parent_poll_handler(switcher_step);
  ASSERT_EQ(0, pipe2(parent_.in, O_NONBLOCK | O_CLOEXEC));
  ASSERT_EQ(0, pipe2(parent_.out, O_NONBLOCK | O_CLOEXEC));
  parent_channel_use_fds_for_test(parent_.in[0], parent_.out[1]);
}

void SwitcherTest::TearDown() {
  set_parent_poll_handler(nullptr);
  (void)stderr_of(connection_reset_for_test);
  close_fd(sw.fd);
  close_fd(sw.listener.fd);
  parent_channel_use_fds_for_test(0, 1);
  for (int* fd : {&parent_.in[0], &parent_.in[1], &parent_.out[0], &parent_.out[1]}) close_fd(*fd);
}

std::string switcher_link_up() {
  const std::string log = stderr_of([] {
    connection_close();
    connection_set_next_connect_time_for_test(0);
    for (int i = 0; i < 2000 && !connection_ready(); ++i) connection_connect();
  });
  close_fd(sw.fd);
  sw.fd = accept_within(sw.listener, 2000);
  sw.raw.clear();
  sw.parsed = 0;
  EXPECT_TRUE(connection_ready() && sw.fd >= 0);
  return log;
}

void switcher_step() {
  if (sw.close_now) {
    sw.close_now = false;
    connection_close();
    return;
  }
  char buf[4096];
  for (ssize_t n; sw.fd >= 0 && (n = recv(sw.fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
    sw.raw.append(buf, static_cast<std::size_t>(n));
  }
  if (++sw.steps <= sw.replies.size()) (void)write_all(sw.fd, sw.replies[sw.steps - 1]);
  int unread = 0;
  if (sw.hold_fd >= 0 && ioctl(sw.hold_fd, FIONREAD, &unread) == 0 && unread > 0) return;
  for (std::size_t end; (end = sw.raw.find(eot, sw.parsed)) != std::string::npos;) {
    std::string text = sw.raw.substr(sw.parsed + 3, end - sw.parsed - 5);  // less the checksum
    sw.parsed = end + 1;
    std::replace(text.begin(), text.end(), tab, ' ');
    sw.heard.push_back(text);
    if (text == sw.silent_on) continue;
    const auto it = sw.answers.find(text);
    if (it != sw.answers.end()) {
      (void)write_all(sw.fd, it->second);
    } else if (sw.answer_rest) {
      (void)write_all(sw.fd, framed("N0ER\t00\t" + text.substr(0, 2)));
    }
    if (text == sw.close_after) sw.close_now = true;
    if (text == sw.hang_up_after) close_fd(sw.fd);
    if (sw.one_frame_per_step) break;
  }
}

std::string framed(const std::string& body) {
  unsigned sum = 0;
  for (unsigned char c : body) sum += c;
  char digits[3];
  std::snprintf(digits, sizeof digits, "%02X", (256 - sum % 256) % 256);
  return "\x01" + body + digits + "\x04";
}

std::string parent_pipes_output(const parent_pipes& p) {
  std::string out;
  char buf[65536];
  for (ssize_t n; (n = read(p.out[0], buf, sizeof buf)) > 0;) out.append(buf, n);
  return out;
}
