// Emergency messages, said as they come, beside whatever command runs.
#pragma once

#include <map>
#include <optional>
#include <thread>

#include "context.h"
#include "listener.h"

namespace motorctl {

// While it exists, a thread of its own says on standard error what nodes report by emergency
// messages (0x80 + node-ID). One that a node repeats is said once; the end of an error (code 0) is
// said where the error was. Without an interface it does nothing: the command will tell.
class EmergencyWatch {
 public:
  // `context` outlives it. Its thread takes no signals.
  explicit EmergencyWatch(const Context& context);
  ~EmergencyWatch();
  EmergencyWatch(const EmergencyWatch&) = delete;
  EmergencyWatch& operator=(const EmergencyWatch&) = delete;

 private:
  void Run();
  void Hear(const can_frame& frame);

  const Context& context_;
  std::optional<Listener> listener_;
  std::map<canid_t, std::uint64_t> last_;  // data of the newest message of each node
  int end_;                                // becomes readable when it is to end
  std::thread thread_;                     // last: it uses the rest
};

}  // namespace motorctl
