#include "parent/channel.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "support/temp_file.h"

namespace {

// The channel over two non-blocking pipes: the test writes the parent's
// requests into one and reads the backend's output from the other.
class ParentChannelTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, pipe2(in_, O_NONBLOCK | O_CLOEXEC));
    ASSERT_EQ(0, pipe2(out_, O_NONBLOCK | O_CLOEXEC));
    parent_channel_use_fds_for_test(in_[0], out_[1]);
  }
  void TearDown() override {
    parent_channel_use_fds_for_test(0, 1);
    for (int fd : {in_[0], in_[1], out_[0], out_[1]}) {
      if (fd >= 0) close(fd);
    }
  }

  void Feed(const std::string& text) {
    ASSERT_EQ(static_cast<ssize_t>(text.size()), write(in_[1], text.data(), text.size()));
  }
  // Pumps once per byte fed; returns the first failure, else 0.
  int Pump(std::size_t times) {
    for (std::size_t i = 0; i < times; ++i) {
      if (parent_pump() < 0) return -1;
    }
    return 0;
  }
  int Unread() {
    int n = -1;
    ioctl(in_[0], FIONREAD, &n);
    return n;
  }
  std::string Drain() {
    std::string got;
    char buf[65536];
    for (ssize_t n; (n = read(out_[0], buf, sizeof buf)) > 0;) got.append(buf, n);
    return got;
  }
  void CloseFd(int& fd) {
    close(fd);
    fd = -1;
  }

  int in_[2] = {-1, -1};
  int out_[2] = {-1, -1};
};

TEST_F(ParentChannelTest, ReadsOneRecordAtATime) {
  const std::string first = "*COMMAND=report\r\n*ID=17\nreport=info\r\n\n";
  const std::string second = "*COMMAND=set\n\n";
  Feed(first + second);
  ASSERT_EQ(0, Pump(first.size()));
  // The pump completed the record: taking it reads nothing more.
  const parent_message* msg = parent_next();
  ASSERT_NE(nullptr, msg);
  EXPECT_EQ(static_cast<int>(second.size()), Unread());
  EXPECT_EQ("report", msg->command);
  EXPECT_EQ("17", msg->id);
  EXPECT_EQ("info", parent_field(*msg, "report"));

  // The next read step empties the record handed out before reading.
  ASSERT_EQ(0, parent_pump());
  EXPECT_TRUE(msg->command.empty());
  ASSERT_EQ(0, Pump(second.size() - 1));
  msg = parent_next();
  ASSERT_NE(nullptr, msg);
  EXPECT_EQ("set", msg->command);
  EXPECT_EQ(nullptr, parent_next());
}

TEST_F(ParentChannelTest, ReadyRecordStopsReading) {
  Feed("k=v\n\nmore");
  ASSERT_EQ(0, Pump(20));
  EXPECT_EQ(4, Unread());
  EXPECT_NE(nullptr, parent_next());
}

TEST_F(ParentChannelTest, TypeAndIdAloneCompleteNothing) {
  const std::string text = "\n*TYPE=reply\n*ID=4\n\n\r\nk=\n\n";
  Feed(text);
  for (std::size_t i = 0; i + 1 < text.size(); ++i) EXPECT_EQ(nullptr, parent_next());
  // The lines after the ignored empty lines joined the same record.
  const parent_message* msg = parent_next();
  ASSERT_NE(nullptr, msg);
  EXPECT_EQ("reply", msg->type);
  EXPECT_EQ("4", msg->id);
  EXPECT_EQ(1u, msg->fields.count("k"));
}

TEST_F(ParentChannelTest, EndOfInputEndsChannel) {
  parent_message msg;
  msg.command = "info";
  // Fill the output pipe so that the record stays queued.
  while (write(out_[1], "0123456789abcdef", 16) > 0) {
  }
  parent_send(msg);
  EXPECT_TRUE(parent_output_pending());
  EXPECT_EQ(0, parent_pump());  // nothing to read yet, nothing written
  CloseFd(in_[1]);
  EXPECT_EQ(-1, parent_pump());
  EXPECT_TRUE(parent_output_pending());
}

TEST_F(ParentChannelTest, PartialWriteCompletesLater) {
  parent_message msg;
  msg.command = "outputs";
  msg.fields["o0.name"] = std::string(200000, 'n');  // more than a pipe holds
  std::string want;
  parent_message_serialise(msg, want);
  parent_message_serialise(msg, want);

  parent_send(msg);
  parent_send(msg);
  std::string got;
  for (int i = 0; i < 100 && parent_output_pending(); ++i) {
    got += Drain();
    ASSERT_EQ(0, parent_pump());
  }
  got += Drain();
  EXPECT_FALSE(parent_output_pending());
  EXPECT_EQ(want, got);
}

TEST_F(ParentChannelTest, WriteFailureEndsChannel) {
  std::signal(SIGPIPE, SIG_IGN);  // the broken pipe must show as EPIPE here
  CloseFd(out_[0]);
  parent_message msg;
  msg.command = "info";
  parent_send(msg);
  EXPECT_EQ(-1, parent_pump());
  EXPECT_TRUE(parent_output_pending());
}

TEST_F(ParentChannelTest, PrepareRefusesRegularFile) {
  temp_dir dir;
  const int file = open(dir.write("in", "").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(file, 0);
  parent_channel_use_fds_for_test(file, out_[1]);
  EXPECT_EQ(-1, parent_channel_prepare());
  close(file);
}

}  // namespace
