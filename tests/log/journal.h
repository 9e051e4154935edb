// What the systemd journal would be sent.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "output_capture.h"

// A journal that listens where the system's would, in a mount namespace of the calling process.
class Journal {
 public:
  using Entry = std::map<std::string, std::string>;

  Journal() {
    EXPECT_EQ(::unshare(CLONE_NEWNS), 0);
    EXPECT_EQ(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    EXPECT_EQ(::mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(::mkdir("/run/systemd", 0755), 0);
    EXPECT_EQ(::mkdir("/run/systemd/journal", 0755), 0);
    socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  ~Journal() { ::close(socket_); }
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // Each datagram is a list of lines FIELD=value.
  std::vector<Entry> Entries() const {
    std::vector<Entry> entries;
    char datagram[4096];
    for (;;) {
      const ssize_t bytes = ::read(socket_, datagram, sizeof(datagram));
      if (bytes <= 0) {
        return entries;
      }
      Entry entry;
      for (const std::string& line :
           support::Lines(std::string(datagram, static_cast<std::size_t>(bytes)))) {
        const std::size_t equals = line.find('=');
        entry[line.substr(0, equals)] = line.substr(equals + 1);
      }
      entries.push_back(entry);
    }
  }

 private:
  int socket_ = -1;
};
