#include "parent/channel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>

#include "base/diag.h"
#include "parent/record_reader.h"

namespace {

int in_fd = 0;   // requests from the parent
int out_fd = 1;  // replies and reports to the parent

// The record being filled. Only one is ever buffered: while it is ready,
// further input stays unread in the descriptor.
parent_record_reader reader;
bool record_ready = false;     // complete, waiting to be taken
bool record_handed_out = true; // taken; cleared before the next byte is read

// Serialised records not yet written. written counts the leading bytes
// already written; both are reset together once everything is out.
std::string output;
std::uint64_t written = 0;

// Where the one report of each kind that may still give way to a newer one
// sits in output. A report whose first byte has been written is past giving
// way: it is forgotten here.
struct replaceable_report {
  bool present = false;
  std::size_t at = 0;    // offset in output
  std::size_t size = 0;
  parent_message msg;    // kept for routing reports, whose routes merge
};
constexpr std::size_t report_kinds = 5;
static_assert(static_cast<std::size_t>(parent_output_kind::routing) == report_kinds - 1);
std::array<replaceable_report, report_kinds> replaceable;

// A pipe, a terminal or other character device, or a socket.
bool usable_type(int fd) {
  struct stat st{};
  if (fstat(fd, &st) != 0) return false;
  return S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode) || S_ISSOCK(st.st_mode);
}

bool set_nonblocking(int fd) {
  const int fl = fcntl(fd, F_GETFL);
  return fl != -1 && fcntl(fd, F_SETFL, fl | O_NONBLOCK) != -1;
}

void reset_output() {
  output.clear();
  written = 0;
  replaceable = {};
}

std::uint64_t unwritten() { return output.size() - written; }

// Reads at most one byte. Returns -1 at end of input or on a hard failure.
int read_step() {
  if (record_ready) return 0;
  if (record_handed_out) {
    parent_reader_restart(reader);
    record_handed_out = false;
  }
  // Flow control: the parent's bytes wait in the pipe until it has read
  // enough of ours.
  if (parent_input_held()) return 0;
  char c;
  const ssize_t n = read(in_fd, &c, 1);
  if (n == 0) return -1;
  if (n < 0) return (errno == EAGAIN || errno == EINTR) ? 0 : -1;

  switch (parent_reader_take(reader, c)) {
    case parent_read_result::complete:
      record_ready = true;
      break;
    case parent_read_result::dropped:
      diag("<WARN>Dropping a parent record longer than %zu bytes\n", reader.limit);
      break;
    case parent_read_result::more:
      break;
  }
  return 0;
}

// Reports that began to go out can no longer give way.
void forget_started_reports() {
  for (replaceable_report& r : replaceable) {
    if (r.present && r.at < written) r = replaceable_report{};
  }
}

// One write of everything unwritten. Returns -1 when the descriptor failed;
// the bytes then stay queued.
int write_step() {
  if (output.empty()) return 0;
  if (written >= output.size()) {
    reset_output();
    return 0;
  }
  errno = 0;
  const ssize_t n = write(out_fd, output.data() + written, unwritten());
  if (n > 0) {
    written += static_cast<std::uint64_t>(n);
    if (written == output.size()) {
      reset_output();
    } else {
      forget_started_reports();
    }
    return 0;
  }
  if (n == 0) return -1;
  return (errno == EAGAIN || errno == EINTR) ? 0 : -1;
}

// Takes an older unwritten report of msg's kind out of the buffer; a routing
// report's older routes are merged under msg's own.
void give_way(replaceable_report& older, parent_output_kind kind, parent_message& msg) {
  if (!older.present) return;
  output.erase(older.at, older.size);
  for (replaceable_report& r : replaceable) {
    if (r.present && r.at > older.at) r.at -= older.size;
  }
  if (kind == parent_output_kind::routing) msg.fields.merge(older.msg.fields);
  older = replaceable_report{};
}

}  // namespace

int parent_channel_prepare() {
  // Each check stops at the first failure, leaving later descriptors alone.
  if (!usable_type(in_fd) || !set_nonblocking(in_fd)) return -1;
  if (!usable_type(out_fd) || !set_nonblocking(out_fd)) return -1;
  // Standard error is checked but keeps its flags: diagnostics may block.
  if (!usable_type(STDERR_FILENO)) return -1;
  std::setbuf(stderr, nullptr);
  return 0;
}

int parent_pump() {
  if (read_step() < 0) return -1;
  return write_step();
}

int parent_write_pending() { return write_step(); }

const parent_message* parent_next() {
  (void)read_step();  // an ended channel is reported by the next pump
  if (!record_ready) return nullptr;
  record_ready = false;
  record_handed_out = true;
  return &reader.record;
}

void parent_send(const parent_message& msg, parent_output_kind kind) {
  if (kind == parent_output_kind::reply) {
    parent_message_serialise(msg, output);
  } else {
    replaceable_report& slot = replaceable[static_cast<std::size_t>(kind)];
    parent_message newest = msg;
    give_way(slot, kind, newest);
    slot.present = true;
    slot.at = output.size();
    parent_message_serialise(newest, output);
    slot.size = output.size() - slot.at;
    if (kind == parent_output_kind::routing) slot.msg = std::move(newest);
  }
  // A failure shows again, with the same bytes, at the next pump.
  (void)write_step();
}

bool parent_output_pending() { return !output.empty(); }

bool parent_input_held() { return unwritten() >= parent_output_high_water; }

void parent_add_read_fds(fd_set* set, int* nfds) {
  if (!parent_input_held()) FD_SET(STDIN_FILENO, set);
  FD_SET(STDOUT_FILENO, set);
  FD_SET(STDERR_FILENO, set);
  if (*nfds < 3) *nfds = 3;
}

void parent_add_write_fds(fd_set* set, int* nfds) {
  if (!parent_input_held()) return;
  FD_SET(STDOUT_FILENO, set);
  if (*nfds < STDOUT_FILENO + 1) *nfds = STDOUT_FILENO + 1;
}

void parent_channel_use_fds_for_test(int in, int out) {
  in_fd = in;
  out_fd = out;
  reader = parent_record_reader{};
  record_ready = false;
  record_handed_out = true;
  reset_output();
}
