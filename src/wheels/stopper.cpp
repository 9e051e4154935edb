#include "wheels/stopper.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <thread>

#include "driver/canopen.h"
#include "driver/sdo_observer.h"
#include "log/output_relay.h"
#include "wheels/drives.h"
#include "wheels/vehicle_rules.h"

namespace motor_driver {
namespace {

using Clock = std::chrono::steady_clock;
using IsCancelled = std::function<bool()>;
using std::chrono::milliseconds;

constexpr double kMinutesPerMs = 1.0 / 60'000;

}  // namespace

// Of this file alone, although it is named in an exported class.
class [[gnu::visibility("hidden")]] Stopper::Impl final : private SdoObserver {
 public:
  explicit Impl(const Vehicle& vehicle)
      : vehicle_(Checked(vehicle)), drives_(vehicle_), motions_(drives_.nodes().size()) {
    drives_.Open();
    if (!drives_.make().simulated) {
      counts_per_revolution_ = drives_.drive().GetNumberOfPulsesPerRevolution();
    }
    Deafen();
    for (const Node& node : drives_.nodes()) {
      nodes_.push_back({node.id, false, false, "was not asked"});
    }
  }

  ~Impl() override = default;
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  std::string BusTrouble() const {
    const std::string reason = drives_.BusTrouble().reason;
    // The receive thread may not have tried yet.
    return reason.empty() && !drives_.InterfaceUp()
               ? fmt::format("the interface {} is down: see \"ip link\"", vehicle_.interface)
               : reason;
  }

  const std::vector<StoppedNode>& nodes() const { return nodes_; }

  bool Stop(milliseconds limit, const IsCancelled& cancelled) {
    if (drives_.make().simulated) {
      for (StoppedNode& node : nodes_) {
        node = {node.node, true, true, ""};
      }
      return true;
    }
    SdoObserver* const previous = SetSdoObserver(this);
    const bool stopped = StopAll(Clock::now() + limit, cancelled);
    SetSdoObserver(previous);
    Deafen();
    return stopped;
  }

 private:
  // The way of one node since its motors were seen to be where they are.
  struct Motion {
    std::array<std::int32_t, kMaxMotors> positions{};
    std::optional<Clock::time_point> since;
  };

  // A process that waits for years must not keep what it hears.
  void Deafen() {
    if (!drives_.make().simulated) {
      drives_.drive().CanFiltersConfig(nullptr, 0);
      drives_.drive().ClearReadQueue();
    }
  }

  bool StopAll(Clock::time_point deadline, const IsCancelled& cancelled) {
    for (std::size_t node = 0; node < nodes_.size(); ++node) {
      nodes_[node] = {drives_.nodes()[node].id, false, false, "was not asked"};
      motions_[node] = {};
    }
    do {
      if (drives_.BusFailed() && !drives_.Recover()) {
        for (StoppedNode& node : nodes_) {
          node.standing = false;
          node.reason = BusTrouble();
        }
        if (cancelled && cancelled()) {
          return false;
        }
        std::this_thread::sleep_for(vehicle_.period);
        continue;
      }
      SendZeros();
      bool all = true;
      for (std::size_t node = 0; node < nodes_.size(); ++node) {
        if (cancelled && cancelled()) {
          return false;
        }
        StoppedNode& stopped = nodes_[node];
        stopped.zero_confirmed = stopped.zero_confirmed || ConfirmZero(node);
        stopped.standing = stopped.zero_confirmed && Stands(node);
        if (stopped.standing) {
          stopped.reason.clear();
        }
        all = all && stopped.standing;
      }
      if (all) {
        return true;
      }
      std::this_thread::sleep_for(vehicle_.period);
    } while (Clock::now() < deadline);
    return false;
  }

  // Whatever the nodes hear.
  void SendZeros() {
    for (std::size_t node = 0; node < nodes_.size(); ++node) {
      drives_.TakesCommands(node, true);
      drives_.SetDeaf(node, true);
    }
    drives_.SendZeros();
  }

  void Finished(const SdoTransfer& transfer) override { last_ = transfer; }

  bool ConfirmZero(std::size_t node) {
    const auto& targets = drives_.make().targets;
    const bool taken = std::all_of(targets.begin(), targets.end(), [&](const Object& target) {
      return drives_.drive().SdoWriteWithFeedback(SdoId(node), drives_.make().target_command,
                                                  target.index, target.sub_index, 0);
    });
    if (!taken) {
      motions_[node] = {};
      Explain(node, "zero target velocity");
    }
    return taken;
  }

  // Whether the positions have stayed for long enough; the first look only notes them.
  bool Stands(std::size_t node) {
    Motion& motion = motions_[node];
    std::array<std::int32_t, kMaxMotors> positions{};
    for (std::size_t motor = 0; motor < drives_.make().motors; ++motor) {
      const Object& object = drives_.make().positions[motor];
      std::uint32_t value = 0;
      if (!drives_.drive().SdoWriteWithFeedbackData(SdoId(node), cia301::kUpload, object.index,
                                                    object.sub_index, 0, &value)) {
        motion = {};
        Explain(node, "a read of its position");
        return false;
      }
      positions[motor] = static_cast<std::int32_t>(value);
    }
    const auto now = Clock::now();
    if (!motion.since) {
      motion = {positions, now};
    }
    const double ms = std::chrono::duration<double, std::milli>(now - *motion.since).count();
    const bool long_enough = now - *motion.since >= kStandingTime;
    double fastest = 0;
    for (std::size_t motor = 0; motor < positions.size(); ++motor) {
      const auto way =
          static_cast<std::int32_t>(static_cast<std::uint32_t>(positions[motor]) -
                                    static_cast<std::uint32_t>(motion.positions[motor]));
      fastest = std::max(fastest, std::abs(way / counts_per_revolution_));
    }
    nodes_[node].reason = "its position still changes";
    if (!long_enough) {
      return nodes_[node].standing;
    }
    motion = {positions, now};
    return fastest / (ms * kMinutesPerMs) < kStandingRpm;
  }

  void Explain(std::size_t node, const char* what) {
    if (drives_.BusFailed()) {
      nodes_[node].reason = BusTrouble();
    } else if (last_.outcome == SdoTransfer::Outcome::kRefused) {
      nodes_[node].reason = fmt::format("it refuses {} (abort code 0x{:08X})", what, last_.answer);
    } else {
      nodes_[node].reason = "it does not answer";
    }
  }

  std::uint32_t SdoId(std::size_t node) const {
    return cia301::kSdoRequest + drives_.nodes()[node].id;
  }

  const Vehicle vehicle_;
  const OutputRelay relay_;
  Drives drives_;
  double counts_per_revolution_ = 1;
  std::vector<Motion> motions_;
  std::vector<StoppedNode> nodes_;
  SdoTransfer last_;
};

Stopper::Stopper(const Vehicle& vehicle) : impl_(std::make_unique<Impl>(vehicle)) {}

Stopper::~Stopper() = default;

std::string Stopper::BusTrouble() const { return impl_->BusTrouble(); }

bool Stopper::Stop(std::chrono::milliseconds limit, const std::function<bool()>& cancelled) {
  return impl_->Stop(limit, cancelled);
}

const std::vector<StoppedNode>& Stopper::nodes() const { return impl_->nodes(); }

}  // namespace motor_driver
