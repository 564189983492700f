#include "printer/device_id.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// Exactly as large as the driver's answer: a sanitizer sees one byte too far.
std::unique_ptr<char[]> Block(const std::string& start) {
  std::unique_ptr<char[]> id(new char[512]());
  memcpy(id.get(), start.data(), start.size());
  return id;
}

TEST(DeviceIdText, IsWhatFollowsTheLengthFieldWhateverThatSaysUpToTheFirstZero) {
  const std::string id("\x02\x00MODEL:Y;\0CMD:Z;", 17);
  EXPECT_EQ(DeviceIdText(Block(id).get()), "MODEL:Y;");
}

TEST(DeviceIdText, EndsWithTheBlock) {
  EXPECT_EQ(DeviceIdText(Block(std::string(512, 'a')).get()), std::string(510, 'a'));
}

const std::string k63(63, 'y');

struct ModelRow {
  const char* behaviour;
  std::string text;
  std::string model;
};

const ModelRow kModelRows[] = {
    {"at the very start", "MODEL:Y;CMD:Z;", "Y"},
    {"at the second character", "XMODEL:Y;", "Y"},
    {"not at the third character", "XXMODEL:Y;", "none"},
    {"after a semicolon", "X;MODEL:Y;", "Y"},
    {"not after a blank", "MFG:X; MODEL:Y;", "none"},
    {"not the short key", "MFG:X;MDL:Y;CMD:Z;", "none"},
    {"not in lower case", "MFG:X;model:Y;", "none"},
    {"not with a blank before the colon", "MFG:X;MODEL :Y;", "none"},
    {"not at the end of the text", "MFG:X;MODEL", "none"},
    {"search goes on after one that does not count", "MFG:MODEL;XMODEL:A;MODEL:B;", "B"},
    {"search goes on five characters further", "MFG:X;MODELMODEL:Y;", "none"},
    {"first that counts wins", "MODEL:A;MODEL:B;", "A"},
    {"value ends with the text, may hold colons and is not trimmed", "MODEL: Y:12 ", " Y:12 "},
    {"value may be empty", "MODEL:;CMD:Z;", ""},
    {"value may be empty at the end", "MODEL:", ""},
    {"value of 63 characters", "MODEL:" + k63 + ";", k63},
    {"not a value of 64 characters", "MODEL:" + k63 + "y;", "none"},
    {"not a value of 64 characters at the end", "MODEL:" + k63 + "y", "none"},
    {"no second chance after a value too long", "MODEL:" + k63 + "y;MODEL:Y;", "none"},
};

TEST(FindModel, FindsTheKey) {
  for (const ModelRow& row : kModelRows) {
    SCOPED_TRACE(row.behaviour);
    // A view of exactly the text, on the heap: a sanitizer sees one byte too far.
    const std::vector<char> text(row.text.begin(), row.text.end());
    std::string_view model = "none";
    EXPECT_EQ(FindModel({text.data(), text.size()}, model), row.model != "none");
    EXPECT_EQ(model, row.model);
  }
}

}  // namespace
