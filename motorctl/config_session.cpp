#include "config_session.h"

#include <cstdio>

#include "words.h"

namespace motorctl {

void WalkBar::Show(double done, std::uint16_t index) {
  constexpr std::chrono::milliseconds kBetween{100};
  constexpr int kWidth = 30;
  constexpr double kEnough = 0.01;  // for a guess at the rest
  const auto now = Clock::now();
  if (!shown_ || now < next_) return;
  next_ = now + kBetween;
  drawn_ = true;
  const auto filled = static_cast<std::size_t>(done * kWidth);
  std::string left;
  if (done > kEnough) {
    const double seconds = std::chrono::duration<double>(now - begin_).count();
    left = ", " + std::to_string(static_cast<long>(seconds * (1 - done) / done + 1)) + " s left";
  }
  std::fprintf(stderr, "\r[%s%s] node %d, %s%s\x1b[K", std::string(filled, '#').c_str(),
               std::string(kWidth - filled, ' ').c_str(), node_, Hex(index, 4).c_str(),
               left.c_str());
}

void WalkBar::Clear() {
  if (drawn_) std::fputs("\r\x1b[K", stderr);
  drawn_ = false;
}

ConfigSession::ConfigSession(const Context& context, int node)
    : context_(context),
      node_(node),
      lock_(context.vehicle.interface, {node}),
      device_(context.vehicle.interface, node, context.SdoTimeout(),
              [this] { return signals_ && signals_->Arrived(); }) {}

ConfigWalk ConfigSession::Walk() {
  WalkBar bar(context_, node_);
  const Eds* const sheet = context_.data_sheet ? &*context_.data_sheet : nullptr;
  return WalkDevice(device_, node_, sheet, context_.make,
                    [&bar](double done, std::uint16_t index) { bar.Show(done, index); });
}

Config ConfigSession::ReadObjects(const Config& wanted) {
  WalkBar bar(context_, node_);
  return ReadObjectsOf(device_, node_, wanted,
                       [&bar](double done, std::uint16_t index) { bar.Show(done, index); });
}

}  // namespace motorctl
