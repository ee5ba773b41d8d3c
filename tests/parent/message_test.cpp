#include "parent/message.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

parent_message Parse(const std::vector<std::string>& lines) {
  parent_message msg;
  for (const std::string& line : lines) parent_message_parse_line(msg, line);
  return msg;
}

std::string Text(const parent_message& msg) {
  std::string out;
  parent_message_serialise(msg, out);
  return out;
}

void ExpectSame(const parent_message& want, const parent_message& got) {
  EXPECT_EQ(want.command, got.command);
  EXPECT_EQ(want.error, got.error);
  EXPECT_EQ(want.type, got.type);
  EXPECT_EQ(want.id, got.id);
  EXPECT_EQ(want.fields, got.fields);
}

TEST(ParentMessageTest, ParsesLines) {
  struct Case {
    const char* name;
    std::vector<std::string> lines;
    parent_message expected;
  };
  const Case cases[] = {
      {"request",
       {"*COMMAND=report", "*ID=17", "report=info"},
       {"report", "", "", "17", {{"report", "info"}}}},
      {"reserved error and type", {"*ERROR=bad", "*TYPE=reply"}, {"", "bad", "reply", "", {}}},
      {"first equals splits", {"*COMMAND=a=b", "k==v"}, {"a=b", "", "", "", {{"k", "=v"}}}},
      {"repeated name joins lines",
       {"k=a", "k=b", "*ID=1", "*ID=2"},
       {"", "", "", "1\n2", {{"k", "a\nb"}}}},
      {"empty value is present", {"k="}, {"", "", "", "", {{"k", ""}}}},
      {"empty first line is dropped", {"k=", "k=b"}, {"", "", "", "", {{"k", "b"}}}},
      {"near-reserved names are fields", {"*COMMANDX=a", "*command=b", "*ID", "=c"},
       {"", "", "", "", {{"*COMMANDX", "a"}, {"*command", "b"}, {"", "c"}}}},
      {"NUL ends the text",
       {std::string("k=v\0w", 5), std::string("\0k=v", 4)},
       {"", "", "", "", {{"k", "v"}}}},
      // Lines that carry nothing follow.
      {"no equals", {"report", "\r", ""}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ExpectSame(c.expected, Parse(c.lines));
  }
}

TEST(ParentMessageTest, SerialisesReservedFirst) {
  parent_message msg;
  msg.fields["o0.name"] = "CAM 1";
  msg.type = "message";
  msg.command = "outputs";
  EXPECT_EQ("*COMMAND=outputs\n*TYPE=message\no0.name=CAM 1\n\n", Text(msg));

  parent_message all{"c", "e", "t", "i", {{"b", ""}, {"a", "1"}, {"ab", "2"}}};
  EXPECT_EQ("*COMMAND=c\n*ERROR=e\n*TYPE=t\n*ID=i\na=1\nab=2\nb=\n\n", Text(all));

  // Serialising appends: earlier text stays.
  std::string out = "x";
  parent_message_serialise(parent_message{}, out);
  EXPECT_EQ("x\n", out);
}

TEST(ParentMessageTest, MultiLineValues) {
  struct Case {
    std::string value;
    std::string text;
    std::string read_back;
  };
  const Case cases[] = {
      {"", "N=\n", ""},
      {"a", "N=a\n", "a"},
      {"a\nb", "N=a\nN=b\n", "a\nb"},
      {"a\n", "N=a\nN=\n", "a\n"},
      {"a\n\nb", "N=a\nN=\nN=b\n", "a\n\nb"},
      // A leading empty line cannot survive: an empty value takes the next
      // line without a separator.
      {"\nb", "N=\nN=b\n", "b"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    parent_message msg;
    msg.fields["N"] = c.value;
    const std::string text = Text(msg);
    EXPECT_EQ(c.text + "\n", text);

    std::vector<std::string> lines;
    for (std::size_t at = 0, nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) {
      lines.push_back(text.substr(at, nl - at));
    }
    EXPECT_EQ(c.read_back, parent_field(Parse(lines), "N"));
  }

  parent_message reserved;
  reserved.command = "x\ny";
  EXPECT_EQ("*COMMAND=x\n*COMMAND=y\n\n", Text(reserved));
}

}  // namespace
