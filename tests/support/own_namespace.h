// Namespaces of a test's own. What is mounted or set up in them is seen by the calling thread and
// by the threads and processes that it starts, and ends with the last of them: nothing has to be
// undone. Needs root. Each call returns false, with errno set, when it could not be done.
#pragma once

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "base/text.h"

/// Enters a mount namespace whose changes stay inside it.
[[nodiscard]] inline bool EnterOwnMounts() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// Replaces /proc by a directory that files can be put into. The calling process finds what the
/// kernel says of it where it was, which the sanitizers count on. After EnterOwnMounts.
[[nodiscard]] inline bool MountOwnProc() {
  const std::string process = std::to_string(getpid());
  return mount("own_proc", "/mnt", "tmpfs", 0, nullptr) == 0 && mkdir("/mnt/kernel", 0755) == 0 &&
         mount("/proc", "/mnt/kernel", nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
         symlink("kernel/self", "/mnt/self") == 0 &&
         symlink(("kernel/" + process).c_str(), ("/mnt/" + process).c_str()) == 0 &&
         mount("/mnt", "/proc", nullptr, MS_MOVE, nullptr) == 0;
}

/// Replaces what holds the directory of the printers' status file, so that only the file is
/// missing. After EnterOwnMounts.
[[nodiscard]] inline bool MountOwnStatusDirectory() {
  if (std::string_view(BONJOUR_STATUS_FILE).starts_with("/proc/")) return MountOwnProc();
  return mount("own_var", "/var", "tmpfs", 0, nullptr) == 0 && mkdir("/var/run", 0755) == 0 &&
         mkdir("/var/run/bonjour", 0755) == 0;
}

/// Replaces /dev by an empty directory. After EnterOwnMounts.
[[nodiscard]] inline bool MountOwnDev() {
  return mount("own_dev", "/dev", "tmpfs", 0, nullptr) == 0;
}

/// Writes a file whole.
[[nodiscard]] inline bool WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  return !file.fail();
}

/// Enters a network namespace without any interface that is up.
[[nodiscard]] inline bool EnterOwnNetwork() { return unshare(CLONE_NEWNET) == 0; }

/// Creates the bridge "br0" with a MAC address. After EnterOwnNetwork.
[[nodiscard]] inline bool AddBridge(const uint8_t (&mac)[6]) {
  const Descriptor control(socket(AF_INET, SOCK_DGRAM, 0));
  if (ioctl(control.Get(), SIOCBRADDBR, "br0") < 0) return false;
  ifreq request{};
  CopyText(request.ifr_name, "br0");
  request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
  memcpy(request.ifr_hwaddr.sa_data, mac, sizeof(mac));
  return ioctl(control.Get(), SIOCSIFHWADDR, &request) == 0;
}

/// Gives "br0" an IPv4 address and switches it on. After AddBridge.
[[nodiscard]] inline bool BringUpBridge(const char* dottedAddress) {
  const Descriptor control(socket(AF_INET, SOCK_DGRAM, 0));
  ifreq request{};
  CopyText(request.ifr_name, "br0");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr(dottedAddress);
  memcpy(&request.ifr_addr, &address, sizeof(address));
  if (ioctl(control.Get(), SIOCSIFADDR, &request) < 0) return false;
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  return ioctl(control.Get(), SIOCSIFFLAGS, &request) == 0;
}
