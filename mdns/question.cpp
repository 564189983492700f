// What a received message asks for.
#include "mdns/question.h"

#include "base/service_kinds.h"
#include "records/encode.h"

namespace {

// From the end of a two-label name's first label to the low byte of its type: the length byte and
// the five characters of "local", the root byte, the type's high byte.
constexpr size_t kFirstLabelToType = 8;
// What follows a name in a question: type and class.
constexpr size_t kTypeAndClassSize = 4;

char LowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (LowerCase(a[i]) != LowerCase(b[i])) return false;
  }
  return true;
}

std::string_view CutAtZero(std::string_view label) {
  const size_t zero = label.find('\0');
  return zero == std::string_view::npos ? label : std::string_view(label.data(), zero);
}

}  // namespace

bool AsksForHostName(const MessageReader& buffer, std::string_view deviceName) {
  const size_t length = buffer.Byte(kHeaderSize);
  return EqualsIgnoringCase(CutAtZero(buffer.Text(kHeaderSize + 1, length)), deviceName);
}

uint8_t HostQuestionType(const MessageReader& buffer) {
  const size_t length = buffer.Byte(kHeaderSize);
  return buffer.Byte(kHeaderSize + 1 + length + kFirstLabelToType);
}

bool AsksForService(const MessageReader& message, std::string_view shortLabel,
                    std::string_view serviceName) {
  const uint16_t questions = message.Word(kQuestionCountOffset);
  // Wider than the field, so that a count of 0 is never met and the walk runs to the end.
  uint32_t walked = 0;
  size_t offset = kHeaderSize;
  std::string_view firstLabel;
  bool isFirstLabel = true;

  while (message.Has(offset)) {
    const uint8_t length = message.Byte(offset);
    if (length != kRootLabel && length != kPointerMark) {
      if (!message.Has(offset + 1, length)) return false;
      const std::string_view label = message.Text(offset + 1, length);
      if (isFirstLabel) firstLabel = label;
      if (label == shortLabel &&
          (isFirstLabel || firstLabel == serviceName ||
           (firstLabel == kUniversalSubtypeLabel && shortLabel == kIppService.Label()))) {
        return true;
      }
      isFirstLabel = false;
      offset += size_t{length} + 1;
      continue;
    }
    ++walked;
    if (walked == questions) return false;
    offset += (length == kPointerMark ? 2 : 1) + kTypeAndClassSize;
    isFirstLabel = true;
  }
  return false;
}
