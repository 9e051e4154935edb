#include "config_restore.h"

#include <chrono>
#include <map>
#include <set>
#include <thread>

#include "abort_codes.h"
#include "config_pdo.h"
#include "context.h"
#include "sdo_words.h"

namespace motorctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kAttempts = 3;
// A drive that was reset is back by then.
constexpr std::chrono::seconds kLongestBoot{5};
constexpr std::chrono::milliseconds kPause{100};

// What nothing told the access of may be a report of the drive, as long as no other write depends
// on it. That no such access is supported is said of the object, not of the value.
bool IsReadOnly(const ConfigObject& object, const SdoAnswer& answer) {
  return object.access.empty() && !PdoOf(object.index) &&
         (answer.abort_code == kReadOnly || answer.abort_code == kNoSuchAccess);
}

class Restoring {
 public:
  Restoring(const std::vector<ConfigWrite>& writes, const ConfigIdentity& identity,
            ConfigDevice& device)
      : writes_(writes), identity_(identity), device_(device) {}

  ConfigOutcome Run(const std::function<void(const ConfigOutcome&)>& finish) {
    ConfigOutcome outcome;
    try {
      for (const ConfigWrite& write : writes_) {
        RequirePeace();
        ++begun_;
        Write(write, outcome);
      }
      RequirePeace();
      RequireWhatWasWritten();
      RequireTheSameDrive();
      finish(outcome);
    } catch (const CommandFailed& failure) {
      outcome.failure = failure.what();
      Undo(outcome);
    }
    return outcome;
  }

 private:
  void RequirePeace() const {
    const std::string disturbance = device_.Disturbance();
    if (!disturbance.empty()) throw CommandFailed(disturbance);
  }

  // One object may have changed another, and a drive may have been reset unseen.
  void RequireWhatWasWritten() {
    std::map<std::pair<std::uint16_t, std::uint8_t>, const ConfigObject*> last;
    for (const ConfigWrite& write : writes_) {
      if (refused_.count(&write) == 0) {
        last[{write.object.index, write.object.sub}] = &write.object;
      }
    }
    for (const auto& [place, object] : last) {
      const SdoAnswer read =
          Repeat([&, object = object] { return device_.Read(object->index, object->sub); });
      if (read.ok() && read.bytes == object->bytes) continue;
      throw CommandFailed(Shown(*object) + ": was written as " + ConfigValueText(*object) +
                          ", and in the end " +
                          (read.ok() ? "is " + ConfigValueText(*object, read.bytes)
                                     : "cannot be read: " + Explanation(read)));
    }
  }

  void RequireTheSameDrive() const {
    const std::string another = Another(IdentityOf(device_));
    if (!another.empty()) throw CommandFailed(another);
  }

  // Why the drive may be another one than that which the plan was made for.
  std::string Another(const ReadIdentity& found) const {
    if (!found.answers) return "the drive answers no longer";
    std::string different = DifferentProduct(identity_, found.identity);
    if (different.empty()) different = DifferentRevision(identity_, found.identity);
    if (different.empty()) different = DifferentSerial(identity_, found.identity);
    if (!different.empty()) return "this is another drive: " + different;
    if (device_.booted_up() && identity_.serial.value_or(0) == 0) {
      return "a drive booted up, and without a serial number it may be another one";
    }
    return "";
  }

  void Write(const ConfigWrite& write, ConfigOutcome& outcome) {
    const ConfigObject& object = write.object;
    const SdoAnswer answer =
        Repeat([&] { return device_.Write(object.index, object.sub, object.bytes); },
               [this] { return IsTheSameDrive(); });
    if (answer.kind == SdoAnswer::Kind::kAborted &&
        (write.optional || IsReadOnly(object, answer))) {
      (write.optional ? outcome.refused : outcome.read_only).push_back(Shown(object));
      refused_.insert(&write);
      return;
    }
    const bool written =
        answer.ok() || (answer.kind == SdoAnswer::Kind::kLate && answer.abort_code == 0);
    if (!written) throw CommandFailed(Shown(object) + ": " + WriteExplanation(answer));
    const SdoAnswer read = Repeat([&] { return device_.Read(object.index, object.sub); });
    if (!read.ok()) throw CommandFailed(Shown(object) + ": read back: " + Explanation(read));
    if (read.bytes != object.bytes) {
      throw CommandFailed(Shown(object) + ": was written as " + ConfigValueText(object) +
                          " and is read back as " + ConfigValueText(object, read.bytes));
    }
  }

  // What was not answered may be the last that the drive was sent.
  bool IsTheSameDrive() {
    ReadIdentity found;
    for (int i = 0; i < kAttempts && !found.answers; ++i) found = IdentityOf(device_);
    RequirePeace();
    return Another(found).empty();
  }

  // A frame may have been lost.
  template <typename Transfer>
  static SdoAnswer Repeat(Transfer transfer, const std::function<bool()>& may_repeat = nullptr) {
    SdoAnswer answer = transfer();
    for (int i = 1; i < kAttempts && answer.kind == SdoAnswer::Kind::kNoAnswer; ++i) {
      if (may_repeat && !may_repeat()) break;
      answer = transfer();
    }
    return answer;
  }

  void Undo(ConfigOutcome& outcome) {
    if (begun_ == 0) return;
    const ReadIdentity found = AwaitDrive();
    const std::string another = Another(found);
    if (!another.empty()) {
      outcome.failure += "; nothing is written back, for " + another;
      NameAll(outcome);
      return;
    }
    for (std::size_t i = begun_; i > 0; --i) {
      if (refused_.count(&writes_[i - 1]) != 0) continue;
      const std::string now = WriteBack(writes_[i - 1]);
      if (now.empty()) continue;
      outcome.failure += "; not all is written back, for " + now;
      NameAll(outcome);
      return;
    }
    Compare(outcome);
  }

  // Why the rest must stay as it is: the drive is gone, or another one is in its place. A refusal
  // is seen when all are compared, as is an object that takes the value back only later.
  std::string WriteBack(const ConfigWrite& write) {
    for (int i = 0; i < kAttempts; ++i) {
      const ConfigObject& object = write.object;
      if (device_.Write(object.index, object.sub, write.before).heard()) break;
      // Before the value is sent once more: what comes back may be another one.
      std::string another = Another(AwaitDrive());
      if (!another.empty()) return another;
    }
    return "";
  }

  // As the plan found them; what was refused may change by itself.
  using Held = std::map<std::pair<std::uint16_t, std::uint8_t>, const ConfigWrite*>;
  Held Before() const {
    Held held;
    for (std::size_t i = 0; i < begun_; ++i) {
      if (refused_.count(&writes_[i]) != 0) continue;
      const ConfigObject& object = writes_[i].object;
      held.insert({{object.index, object.sub}, &writes_[i]});
    }
    return held;
  }

  void NameAll(ConfigOutcome& outcome) const {
    for (const auto& [place, write] : Before()) {
      outcome.not_as_they_were.push_back(Shown(write->object) + " was " +
                                         ConfigValueText(write->object, write->before));
    }
  }

  void Compare(ConfigOutcome& outcome) {
    bool answers = true;
    for (const auto& [place, write] : Before()) {
      const ConfigObject& object = write->object;
      const SdoAnswer read = answers ? device_.Read(object.index, object.sub) : SdoAnswer();
      answers = answers && read.heard();
      if (read.ok() && read.bytes == write->before) continue;
      outcome.not_as_they_were.push_back(Shown(object) + " was " +
                                         ConfigValueText(object, write->before) + " and " +
                                         (read.ok() ? "is " + ConfigValueText(object, read.bytes)
                                                    : "cannot be read: " + Explanation(read)));
    }
  }

  // It may be booting, which is told before it answers.
  ReadIdentity AwaitDrive() {
    for (const auto until = Clock::now() + kLongestBoot;;) {
      const ReadIdentity found = IdentityOf(device_);
      device_.Disturbance();
      if (found.answers || Clock::now() >= until) return found;
      std::this_thread::sleep_for(kPause);
    }
  }

  const std::vector<ConfigWrite>& writes_;
  const ConfigIdentity& identity_;
  ConfigDevice& device_;
  std::size_t begun_ = 0;
  std::set<const ConfigWrite*> refused_;
};

}  // namespace

ConfigOutcome WritePlan(const std::vector<ConfigWrite>& writes, const ConfigIdentity& identity,
                        ConfigDevice& device,
                        const std::function<void(const ConfigOutcome&)>& finish) {
  return Restoring(writes, identity, device).Run(finish);
}

}  // namespace motorctl
