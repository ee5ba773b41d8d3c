// Arbitrary bytes through the parent channel's record parser and back through
// the serialiser. Records are read by the real channel read step from a pipe
// and written by its write step to a socket.
//
// Which records the text form carries is said in record_form.h.
//
// Checked, on every input:
// 1. The input as a stream: each record handed out is carried; sent straight
//    back (twice) through the channel, the records come out as their text
//    form, in order; and that text reads back as the same records.
// 2. The input cut at 0x1F bytes into command, error, type, id, then field
//    names and values, built into a record without the parser: it reads back
//    as itself if and only if it is carried.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.h"
#include "record_form.h"
#include "parent/channel.h"
#include "parent/message.h"

namespace {

using fuzz::build_record;
using fuzz::carried;
using fuzz::same_record;

// What one run of the channel produced.
struct channel_run {
  std::vector<parent_message> records;  // handed out, in order
  std::string echoed;                   // written by the channel's output side
};

// Appends whatever is waiting on fd to out.
void drain_fd(int fd, std::string& out) {
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<std::size_t>(n));
}

// Feeds text to the channel through a pipe and collects every record it hands
// out until the end of input; with echo, each record is sent straight back
// through parent_send, twice. The input pipe is filled as the channel drains
// it, so text of any length fits. The output goes to a socket with a small
// buffer that is emptied only once all input has been read, so output piles
// up in the channel and then leaves in parts. The input closes only once all
// output is out, because after the end of input the channel writes nothing.
channel_run run_channel(std::string_view text, bool echo) {
  int in[2];
  int out[2];
  FUZZ_CHECK(pipe2(in, O_NONBLOCK | O_CLOEXEC) == 0);
  FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, out) == 0);
  const int small = 1;  // the kernel raises it to its minimum
  (void)setsockopt(out[1], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  parent_channel_use_fds_for_test(in[0], out[1]);
  channel_run run;
  std::size_t off = 0;
  bool open = true;
  for (;;) {
    if (off < text.size()) {
      const ssize_t n = write(in[1], text.data() + off, text.size() - off);
      if (n > 0) off += static_cast<std::size_t>(n);
    }
    if (parent_pump() < 0) break;
    if (const parent_message* m = parent_next()) {
      run.records.push_back(*m);
      if (echo) {
        parent_send(*m);
        parent_send(*m);
      }
    }
    int unread = 0;
    if (off < text.size() || ioctl(in[0], FIONREAD, &unread) != 0 || unread > 0) continue;
    drain_fd(out[0], run.echoed);
    if (open && !parent_output_pending()) {
      close(in[1]);
      open = false;
    }
  }
  FUZZ_CHECK(!parent_output_pending());
  drain_fd(out[0], run.echoed);
  if (open) close(in[1]);
  close(in[0]);
  close(out[0]);
  close(out[1]);
  return run;
}

std::string serialise_all(const std::vector<parent_message>& records) {
  std::string text;
  for (const parent_message& m : records) parent_message_serialise(m, text);
  return text;
}

void check_stream(std::string_view input) {
  const channel_run first = run_channel(input, true);
  const std::vector<parent_message>& records = first.records;
  for (const parent_message& m : records) FUZZ_CHECK(carried(m));
  const std::string text = serialise_all(records);
  std::string twice;
  for (const parent_message& m : records) {
    parent_message_serialise(m, twice);
    parent_message_serialise(m, twice);
  }
  FUZZ_CHECK(first.echoed == twice);
  const std::vector<parent_message> again = run_channel(text, false).records;
  FUZZ_CHECK(again.size() == records.size());
  for (std::size_t i = 0; i < records.size(); ++i) FUZZ_CHECK(same_record(records[i], again[i]));
}

void check_built_record(std::string_view input) {
  const parent_message m = build_record(input);
  std::string text;
  parent_message_serialise(m, text);
  const std::vector<parent_message> back = run_channel(text, false).records;
  const bool same = back.size() == 1 && same_record(m, back[0]);
  FUZZ_CHECK(same == carried(m));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::silence_diagnostics(argc, argv);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  check_stream(input);
  check_built_record(input);
  return 0;
}
