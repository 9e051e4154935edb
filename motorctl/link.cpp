#include "link.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "context.h"

namespace motorctl {
namespace {

using Json = nlohmann::json;

std::optional<int> Number(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_number_integer()) return std::nullopt;
  return found->get<int>();
}

Json Part(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_object() ? *found : Json::object();
}

}  // namespace

bool IsUp(const std::string& interface) {
  ifreq request = {};
  std::copy(interface.begin(), interface.end(), request.ifr_name);
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool known = ::ioctl(socket, SIOCGIFFLAGS, &request) == 0;
  ::close(socket);
  return known && (static_cast<unsigned>(request.ifr_flags) & IFF_UP) != 0;
}

std::optional<Link> FindLink(const std::string& interface) {
  if (::if_nametoindex(interface.c_str()) == 0) return std::nullopt;
  // Administrators' programs are not always in a user's path.
  const std::string command =
      "PATH=$PATH:/usr/sbin:/sbin ip -json -details link show dev " + interface + " 2>/dev/null";
  const std::unique_ptr<FILE, int (*)(FILE*)> ip(::popen(command.c_str(), "re"), ::pclose);
  std::string text;
  if (ip != nullptr) {
    char buffer[4096];
    for (std::size_t bytes = 0; (bytes = std::fread(buffer, 1, sizeof(buffer), ip.get())) > 0;) {
      text.append(buffer, bytes);
    }
  }
  std::optional<Link> link = ParseLink(text);
  if (!link) throw CommandFailed("the program ip tells nothing: is package iproute2 installed?");
  return link;
}

std::optional<Link> ParseLink(const std::string& json) {
  const Json links = Json::parse(json, nullptr, false);
  if (!links.is_array() || links.empty() || !links[0].is_object()) return std::nullopt;
  const Json& entry = links[0];
  Link link;
  link.is_can = entry.value("link_type", "") == "can";
  for (const Json& flag : entry.value("flags", Json::array())) link.up = link.up || flag == "UP";
  link.queue_length = Number(entry, "txqlen").value_or(0);
  const Json info = Part(entry, "linkinfo");
  link.kind = info.value("info_kind", "");
  const Json data = Part(info, "info_data");
  link.bitrate = Number(Part(data, "bittiming"), "bitrate");
  link.restart_ms = Number(data, "restart_ms");
  link.bus_state = data.value("state", "");
  link.transmit_errors = Number(Part(data, "berr_counter"), "tx");
  link.receive_errors = Number(Part(data, "berr_counter"), "rx");
  return link;
}

}  // namespace motorctl
