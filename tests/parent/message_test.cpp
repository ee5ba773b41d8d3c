#include "parent/message.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

// Parses text line by line, as the channel hands the lines over.
parent_message Parse(const std::string& text) {
  parent_message msg;
  for (std::size_t at = 0, nl; at < text.size(); at = nl + 1) {
    nl = std::min(text.find('\n', at), text.size());
    parent_message_parse_line(msg, std::string_view(text).substr(at, nl - at));
  }
  return msg;
}

std::string Text(const parent_message& msg) {
  std::string out;
  parent_message_serialise(msg, out);
  return out;
}

TEST(ParentMessageTest, ParsesLines) {
  const std::pair<std::string, parent_message> cases[] = {
      {"*COMMAND=report\n*ID=17\nreport=info", {"report", "", "", "17", {{"report", "info"}}}},
      {"*ERROR=bad\n*TYPE=reply\n*COMMAND=a=b\nk==v", {"a=b", "bad", "reply", "", {{"k", "=v"}}}},
      {"k=a\nk=b\n*ID=1\n*ID=2", {"", "", "", "1\n2", {{"k", "a\nb"}}}},
      {"k=\nk=b\ne=", {"", "", "", "", {{"e", ""}, {"k", "b"}}}},  // an empty first line is dropped
      {"*COMMANDX=a\n*command=b\n*ID\n=c",
       {"", "", "", "", {{"*COMMANDX", "a"}, {"*command", "b"}, {"", "c"}}}},
      {std::string("k=v\0w\n\0k=v", 10), {"", "", "", "", {{"k", "v"}}}},  // NUL ends the text
      {"report\n\r\n", {}},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(Text(expected), Text(Parse(text))) << text;
}

TEST(ParentMessageTest, MultiLineValuesBothWays) {
  struct Case {
    std::string value;
    std::string text;
    std::string read_back;
  };
  const Case cases[] = {
      {"", "N=\n", ""},
      {"a\nb", "N=a\nN=b\n", "a\nb"},
      {"a\n", "N=a\nN=\n", "a\n"},
      {"a\n\nb", "N=a\nN=\nN=b\n", "a\n\nb"},
      {"\nb", "N=\nN=b\n", "b"},  // lost: an empty value takes the next line whole
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    parent_message msg;
    msg.fields["N"] = c.value;
    EXPECT_EQ(c.text + "\n", Text(msg));
    EXPECT_EQ(c.read_back, parent_field(Parse(Text(msg)), "N"));
  }
}

}  // namespace
