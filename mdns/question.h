// What a received message asks for. Pure: bytes in, a decision out.
#pragma once

#include <cstdint>
#include <string_view>

#include "records/message.h"

/// True when the first label of the first question, cut at a zero byte if it holds one, equals
/// `deviceName` without regard to ASCII case (RFC 6762, section 16). The rest of the name is not
/// looked at. `buffer` is the whole receive buffer: what lies after the received bytes is left
/// over from earlier messages and counts.
bool AsksForHostName(const MessageReader& buffer, std::string_view deviceName);

/// The low byte of the first question's type, for a name of two uncompressed labels of which the
/// second has five characters, as "local" has. `buffer` as for AsksForHostName.
uint8_t HostQuestionType(const MessageReader& buffer);

/// True when a question of the message names the service whose type begins with the label
/// `shortLabel` and whose instance name is `serviceName`: by browsing for the type, by naming the
/// instance, or, for "_ipp", by the "_universal" subtype. Case-sensitive. Compression pointers end
/// a name and are not followed. `message` is what was received, not more; at least 13 bytes of it.
bool AsksForService(const MessageReader& message, std::string_view shortLabel,
                    std::string_view serviceName);
