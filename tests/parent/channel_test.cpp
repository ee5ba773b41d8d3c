// The record text form, the record reader and its bound, and the channel
// with flow control.
#include "parent/channel.h"

#include <gtest/gtest.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <string>

#include "parent/record_reader.h"
#include "support/scripted_switcher.h"

namespace {

std::string Text(const parent_message* msg) {
  std::string text;
  if (msg == nullptr) return "none";
  parent_message_serialise(*msg, text);
  return text;
}

// Parses text line by line, as the channel hands the lines over.
parent_message Parse(const std::string& text) {
  parent_message msg;
  for (std::size_t at = 0, nl; at < text.size(); at = nl + 1) {
    nl = std::min(text.find('\n', at), text.size());
    parent_message_parse_line(msg, std::string_view(text).substr(at, nl - at));
  }
  return msg;
}

// Text parsed line by line; what it parses to, written out and parsed again,
// is the same, a value of several lines included.
TEST(ParentMessageTest, ParsesLinesAndMultiLineValuesBothWays) {
  const std::pair<std::string, parent_message> cases[] = {
      {"*COMMAND=report\n*ID=17\nreport=info", {"report", "", "", "17", {{"report", "info"}}}},
      {"*ERROR=bad\n*TYPE=reply\n*COMMAND=a=b\nk==v", {"a=b", "bad", "reply", "", {{"k", "=v"}}}},
      {"k=a\nk=b\n*ID=1\n*ID=2", {"", "", "", "1\n2", {{"k", "a\nb"}}}},
      {"k=a\nk=\nk=\nk=b\nl=a\nl=", {"", "", "", "", {{"k", "a\n\n\nb"}, {"l", "a\n"}}}},
      {"k=\nk=b\ne=", {"", "", "", "", {{"e", ""}, {"k", "b"}}}},  // an empty first line is dropped
      {"*COMMANDX=a\n*command=b\n*ID\n=c",
       {"", "", "", "", {{"*COMMANDX", "a"}, {"*command", "b"}, {"", "c"}}}},
      {std::string("k=v\0w\n\0k=v", 10), {"", "", "", "", {{"k", "v"}}}},  // NUL ends the text
      {"report\n\r\n", {}},
  };
  for (const auto& [text, expected] : cases) {
    const parent_message got = Parse(text);
    EXPECT_EQ(Text(&expected), Text(&got)) << text;
    const parent_message again = Parse(Text(&got));
    EXPECT_EQ(Text(&expected), Text(&again)) << text;
  }
  // So a value whose first line is empty loses that line.
  parent_message msg;
  msg.fields["N"] = "\nb";
  EXPECT_EQ("N=\nN=b\n\n", Text(&msg));
  EXPECT_EQ("b", parent_field(Parse(Text(&msg)), "N"));
}

// A record's text counts its lines and their line ends, not "\r" and not the
// empty line ending it; one going past the limit is dropped, and the next
// record after the empty line that ends it reads as it would alone. The
// reader never holds more line and record text than the limit and a byte.
TEST(ParentRecordReaderTest, RecordsOverTheLimitAreDroppedAndReadingResumes) {
  const std::string next = "*COMMAND=b\n\n";
  const std::pair<std::string, std::string> cases[] = {  // input, then records or "#" per drop
      {"*COMMAND=a\nk=12345\n\n", "*COMMAND=a\nk=12345\n\n"},       // 19 bytes: at the limit
      {"*COMMAND=a\r\nk=12345\r\n\r\n", "*COMMAND=a\nk=12345\n\n"},  // "\r" does not count
      {"*COMMAND=a\nk=123456\n\n" + next, "#*COMMAND=b\n\n"},       // its line end goes past
      {"*COMMAND=a\nk=1234567\n\n" + next, "#*COMMAND=b\n\n"},      // a byte goes past
      {"k=" + std::string(100, 'v') + "\nmore\n\n" + next, "#*COMMAND=b\n\n"},
      // A record of only a type and an id goes on over empty lines, and grows.
      {"*TYPE=x\n\n*TYPE=x\n\n*TYPE=x\n\n" + next, "#*COMMAND=b\n\n"},
      // Lines the parser ignores, ended by an empty line, start no record.
      {"no equals here\n\n" + next, "*COMMAND=b\n\n"},
      // Two records over the limit in a row: one drop each.
      {std::string(30, 'x') + "\n\n" + std::string(30, 'y') + "\n\n" + next, "##*COMMAND=b\n\n"},
  };
  for (const auto& [input, events] : cases) {
    SCOPED_TRACE(input);
    parent_record_reader r;
    r.limit = 19;
    std::string got;
    std::size_t held_most = 0;
    for (char c : input) {
      const parent_read_result result = parent_reader_take(r, c);
      if (result == parent_read_result::complete) {
        parent_message_serialise(r.record, got);
        parent_reader_restart(r);
      }
      if (result == parent_read_result::dropped) got += "#";
      std::string held;
      parent_message_serialise(r.record, held);
      held_most = std::max(held_most, r.line.size() + held.size());
    }
    EXPECT_EQ(events, got);
    EXPECT_LE(held_most, 19u + 1);
  }
}

// The channel on the shared fixture's pipes.
class ParentChannelTest : public SwitcherTest {
 protected:
  // The read step takes one byte per call.
  void Pump(std::size_t times) {
    for (std::size_t i = 0; i < times; ++i) ASSERT_EQ(0, parent_pump());
  }
  int Unread() {
    int n = -1;
    ioctl(parent_.in[0], FIONREAD, &n);
    return n;
  }
  // Fills the output pipe, so that what the channel sends stays unwritten.
  void BlockOutput() {
    while (write(parent_.out[1], "0123456789abcdef", 16) > 0) {
    }
  }
};

parent_message Report(const char* command, std::map<std::string, std::string> fields) {
  parent_message msg;
  msg.command = command;
  msg.type = "message";
  msg.fields = std::move(fields);
  return msg;
}

TEST_F(ParentChannelTest, EndOfInputOrBrokenOutputEndsChannel) {
  // A read that fails outright (the pipe's write end cannot be read) ends
  // the input as its end does.
  parent_channel_use_fds_for_test(parent_.in[1], parent_.out[1]);
  EXPECT_EQ(-1, parent_pump());
  parent_channel_use_fds_for_test(parent_.in[0], parent_.out[1]);

  const parent_message msg{"info", "", "", "", {}};
  BlockOutput();  // a full output pipe keeps the record queued
  parent_send(msg);
  EXPECT_EQ(0, parent_pump());
  close_fd(parent_.in[1]);
  EXPECT_EQ(-1, parent_pump());
  EXPECT_TRUE(parent_output_pending());

  TearDown();
  SetUp();
  std::signal(SIGPIPE, SIG_IGN);  // the broken pipe must show as EPIPE here
  close_fd(parent_.out[0]);
  parent_send(msg);
  EXPECT_EQ(-1, parent_pump());
  EXPECT_TRUE(parent_output_pending());
}

// A report not yet begun gives way to a newer one of its kind: a names or info
// report is replaced, routing reports merge with the newest route per output.
// The newer one goes last; replies stay as sent.
TEST_F(ParentChannelTest, UnwrittenReportsGiveWayToNewerOnes) {
  BlockOutput();
  const parent_message reply{"", "", "reply", "1", {}};
  parent_send(Report("outputs", {{"o1.input.all", "3"}, {"o2.input.all", "4"}}),
              parent_output_kind::routing);
  parent_send(reply);
  parent_send(Report("outputs", {{"o0.name", "A"}}), parent_output_kind::outputs_names);
  parent_send(Report("outputs", {{"o2.input.all", "5"}, {"o3.input.all", "none"}}),
              parent_output_kind::routing);
  parent_send(Report("inputs", {{"i0.name", "C"}}), parent_output_kind::inputs_names);
  parent_send(Report("outputs", {{"o0.name", "B"}}), parent_output_kind::outputs_names);
  parent_send(reply);
  (void)parent_pipes_output(parent_);
  std::string got;
  for (int i = 0; i < 10 && parent_output_pending(); ++i) {
    ASSERT_EQ(0, parent_pump());
    got += parent_pipes_output(parent_);
  }
  EXPECT_EQ("*TYPE=reply\n*ID=1\n\n"
            "*COMMAND=outputs\n*TYPE=message\no1.input.all=3\no2.input.all=5\no3.input.all=none\n\n"
            "*COMMAND=inputs\n*TYPE=message\ni0.name=C\n\n"
            "*COMMAND=outputs\n*TYPE=message\no0.name=B\n\n"
            "*TYPE=reply\n*ID=1\n\n",
            got);

  // A report whose first bytes have gone out is written whole, and the newer
  // one after it.
  const parent_message started = Report("outputs", {{"o0.name", std::string(200000, 'n')}});
  const parent_message newer = Report("outputs", {{"o0.name", "B"}});
  std::string want;
  parent_message_serialise(started, want);
  parent_message_serialise(newer, want);
  parent_send(started, parent_output_kind::outputs_names);
  parent_send(newer, parent_output_kind::outputs_names);
  got.clear();
  for (int i = 0; i < 100 && parent_output_pending(); ++i) {
    got += parent_pipes_output(parent_);
    ASSERT_EQ(0, parent_pump());
  }
  EXPECT_EQ(want, got + parent_pipes_output(parent_));
}

// With a mebibyte unwritten, nothing is read and descriptor 0 leaves the
// read set for descriptor 1 in the write set; once the parent has read it
// down, reading resumes where it stopped, one record at a time.
TEST_F(ParentChannelTest, UnreadOutputHoldsInputBack) {
  const std::string first = "*COMMAND=report\r\n*ID=17\nreport=info\r\n\n";
  // Empty lines before a record are skipped; *TYPE and *ID alone end nothing.
  const std::string second = "\n*TYPE=reply\n*ID=4\n\n\r\n*COMMAND=set\n\n";
  BlockOutput();
  parent_send(Report("outputs", {{"o0.name", std::string(parent_output_high_water, 'n')}}));
  const std::string input = first + second + "more";
  ASSERT_EQ(static_cast<ssize_t>(input.size()), write(parent_.in[1], input.data(), input.size()));
  const auto sets = [] {
    fd_set rd, wr;
    FD_ZERO(&rd);
    FD_ZERO(&wr);
    int nfds = 0;
    parent_add_read_fds(&rd, &nfds);
    parent_add_write_fds(&wr, &nfds);
    const auto bit = [](bool set) { return set ? '1' : '0'; };
    return std::string{bit(FD_ISSET(0, &rd)), bit(FD_ISSET(1, &rd)), bit(FD_ISSET(2, &rd)), ' ',
                       bit(FD_ISSET(1, &wr)), ' '} + std::to_string(nfds);
  };
  EXPECT_TRUE(parent_input_held());
  EXPECT_EQ("011 1 3", sets());
  for (int i = 0; i < 20; ++i) EXPECT_EQ(nullptr, parent_next());
  EXPECT_EQ(static_cast<int>(first.size() + second.size() + 4), Unread());
  while (parent_input_held()) {
    (void)parent_pipes_output(parent_);
    ASSERT_EQ(0, parent_pump());
  }
  EXPECT_EQ("111 0 3", sets());
  Pump(first.size() + 10);
  // A complete record stops the reading until it is taken.
  EXPECT_EQ(static_cast<int>(second.size() + 4), Unread());
  const parent_message* msg = parent_next();
  EXPECT_EQ("*COMMAND=report\n*ID=17\nreport=info\n\n", Text(msg));
  // The next read step empties the record handed out before reading.
  Pump(1);
  EXPECT_EQ("\n", Text(msg));
  for (std::size_t i = 2; i < second.size(); ++i) EXPECT_EQ(nullptr, parent_next());
  EXPECT_EQ("*COMMAND=set\n*TYPE=reply\n*ID=4\n\n", Text(parent_next()));
  EXPECT_EQ(4, Unread());
}

}  // namespace
