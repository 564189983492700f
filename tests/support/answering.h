// Questions, their answers, and a fixture in which a router answers them without a network.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "mdns/answer.h"
#include "records/registry.h"
#include "tests/support/bytes.h"
#include "tests/support/fake_sender.h"
#include "tests/support/fake_socket.h"
#include "tests/support/network.h"
#include "tests/support/output.h"

constexpr char kHostQuestion[] = "08 'myrouter' 05 'local' 00 00 01 00 01";
constexpr char kIppQuestion[] = "04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01";

// A query of one question.
inline std::string Query(const std::string& question) {
  return "00 00 00 00 00 01 00 00 00 00 00 00 " + question;
}

constexpr char kHostAnswer[] =
    "00 00 84 00 00 00 00 01 00 00 00 00"
    " 08 'myrouter' 05 'local' 00 00 01 00 01 00 00 00 78 00 04 C0 A8 01 02";

constexpr char kIppAnswer[] =
    "00 00 84 00 00 00 00 05 00 00 00 00"
    " 08 'myrouter' 05 'local' 00 00 01 80 01 00 00 00 78 00 04 C0 A8 01 02"
    " 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 18"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 21 80 01 00 00 00 78 00 16"
    " 00 00 00 00 02 77 08 'myrouter' 05 'local' 00"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 10 80 01 00 00 11 94 00 04"
    " 03 'a=b'"
    " 0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00 00 0C 00 01 00 00 11 94 00 18"
    " 06 'Office' 04 '_ipp' 04 '_tcp' 05 'local' 00";

constexpr int32_t kSocket = 21;

inline void Register(const char* name, const char* type, const char* txt = "a=b",
                     int32_t length = 3, uint32_t port = 631) {
  ASSERT_EQ(ServiceRegistryUpdate(SERVICE_ADD, name, type, ".local", txt, length, port), 1u);
}

// Host name and address of the router are myrouter.local and 192.168.1.1 at first.
class AnswerTest : public testing::Test {
 protected:
  AnswerTest() {
    SetDeviceName("myrouter");
    responderState.interfaceAddress[0].Set(inet_addr("192.168.1.1"));
    responderState.mdnsDestination = SocketAddress("224.0.0.251", 5353);
    // The address has changed by the time that an answer is made.
    fakeSocketModule.updateHostIP = [this](uint32_t slot) -> uint32_t {
      ++updates;
      if (!hasAddress) return 0;
      responderState.interfaceAddress[slot].Set(inet_addr("192.168.1.2"));
      return 1;
    };
    StartAnswering(state, 0);
    ForgetSentPackets();
  }
  ~AnswerTest() override {
    StdoutOf([] {
      while (ServiceRegistryUpdate(SERVICE_REMOVE, "", "", "", nullptr, 0, 0) != 0) {
      }
    });
  }

  // Handles a message and returns the log; `from` is the sender's address.
  std::string Handle(const std::string& notation, const char* from = "192.168.1.9") {
    const Bytes message = Wire(notation);
    std::copy(message.begin(), message.end(), state.receiveBuffer);
    return StdoutOf(
        [&] { AnswerMessage(state, message.size(), SocketAddress(from, 5353), kSocket); });
  }

  static std::string Answer(size_t index) { return Hex(SentPackets().at(index).bytes); }
  // The low byte of the header's number of answers.
  static int AnswerCount(size_t index) { return SentPackets().at(index).bytes.at(7); }

  AnsweringState state;
  bool hasAddress = true;
  int updates = 0;
};
