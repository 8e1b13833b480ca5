// What was sent and received, written for Wireshark: datagrams as a pcap file, session keys as its table of IKEv2 keys.
#pragma once

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "ike/sa/association.h"
#include "ike/udp/socket.h"

namespace ikeauth {

class Capture {
  public:
    /// Begins a pcap file. False, with the reason in `error`.
    bool OpenDatagrams(const std::string& path, std::string& error);
    /// Begins a table of keys, with mode 0600: who has both files reads the exchange. A link, or a file of somebody else
    /// or of several names, is not written.
    bool OpenKeys(const std::string& path, std::string& error);

    void Add(const Address& from, const Address& to, bool marked, const std::string& datagram);
    void AddKeys(const Association& association);

  private:
    std::ofstream datagrams_;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> keys_{nullptr, std::fclose};
};

}  // namespace ikeauth
