// SDO transfers: late and missing answers, aborts.
#include <algorithm>

#include "abort_codes.h"
#include "report_watch.h"

namespace motorctl {
namespace {

// The upper three bits of the first byte.
constexpr unsigned kWrite = 1;
constexpr unsigned kRead = 2;
constexpr unsigned kAbort = 4;
constexpr unsigned kReadBlocks = 5;
constexpr unsigned kWriteBlocks = 6;
constexpr unsigned kValue = 2;
constexpr unsigned kExpedited = 2;

// What the library waits for an answer, and after what time none is expected any more, as by
// record.
constexpr std::int64_t kLate = 100'000'000;
constexpr std::int64_t kNever = 500'000'000;
// Who asks again has given the first answer up.
constexpr std::int64_t kAskedAgain = 90'000'000;
constexpr std::int64_t kTick = 10'000'000;

std::string SdoText(int node) { return "SDO node " + std::to_string(node) + ": "; }

unsigned SpecifierOf(const KeptFrame& frame) { return frame.data[0] >> 5U; }

// Of the transfers that are over with one request and its answer; others begin with these, too.
bool BeginsTransfer(const KeptFrame& frame) {
  const unsigned specifier = SpecifierOf(frame);
  if (specifier == kReadBlocks) return (frame.data[0] & 3U) == 0;
  if (specifier == kWriteBlocks) return (frame.data[0] & 1U) == 0;
  return specifier == kWrite || specifier == kRead;
}

std::uint32_t ObjectOf(const KeptFrame& frame) { return LittleEndian(frame.data + 1, 3); }

}  // namespace

std::string SdoWatch::ObjectText(std::uint32_t object) const {
  const auto index = static_cast<std::uint16_t>(object);
  const auto sub = static_cast<std::uint8_t>(object >> 16U);
  const std::string name = ObjectName(index, sub, make_);
  return Hex(index, 4) + ":" + Hex(sub, 2).substr(2) + (name.empty() ? "" : " " + name);
}

void SdoWatch::Hear(int node, bool response, KeptFrame& frame) {
  if (frame.length != 8) return;
  frame.segment = blocks_.Decode(Logged(frame)).has_value();
  if (frame.segment) return;
  if (SpecifierOf(frame) == kAbort) {
    HearAbort(node, response, frame);
  } else if (response) {
    HearResponse(node, frame);
  } else if (BeginsTransfer(frame)) {
    HearRequest(node, frame);
  }
}

void SdoWatch::HearRequest(int node, const KeptFrame& frame) {
  ++report_.nodes[node].requests;
  Await({node, ObjectOf(frame)}, frame);
  if (SpecifierOf(frame) != kWrite) return;
  const auto index = static_cast<std::uint16_t>(ObjectOf(frame));
  nodes_.HearObject(node, frame, index, LittleEndian(frame.data + 4, 4), true);
  if (make_ == nullptr || make_->target.bits != 0) return;
  for (const motor_driver::Object& target : make_->targets) {
    if (index == target.index && frame.data[3] == target.sub_index) {
      streams_.Hear(Streams::kCommandsBySdo | static_cast<std::uint32_t>(node), frame);
    }
  }
}

void SdoWatch::Await(const Key& key, const KeptFrame& frame) {
  // In a log without times no request is ever given up.
  constexpr std::size_t kMostKeys = 10'000;
  constexpr std::size_t kMostWaiting = 64;
  if (requests_.size() >= kMostKeys && requests_.count(key) == 0) return;
  std::deque<Request>& waiting = requests_[key];
  while (!waiting.empty() && frame.nanoseconds - waiting.front().nanoseconds >= kAskedAgain) {
    Unanswered(key, waiting.front());
    waiting.pop_front();
  }
  if (waiting.size() == kMostWaiting) waiting.pop_front();
  waiting.push_back(
      {frame.nanoseconds, frame.line, SpecifierOf(frame) == kRead, report_.nodes[key.first].sends});
}

void SdoWatch::HearResponse(int node, const KeptFrame& frame) {
  report_.nodes[node].sends = true;
  const std::uint32_t object = ObjectOf(frame);
  if (SpecifierOf(frame) == kValue && (frame.data[0] & kExpedited) != 0) {
    nodes_.HearObject(node, frame, static_cast<std::uint16_t>(object),
                      LittleEndian(frame.data + 4, 4), false);
  }
  const auto waiting = requests_.find(Key(node, object));
  if (waiting == requests_.end()) return;
  const std::int64_t took = frame.nanoseconds - waiting->second.front().nanoseconds;
  waiting->second.pop_front();
  if (waiting->second.empty()) requests_.erase(waiting);
  NodeReport& report = report_.nodes[node];
  report.slowest_answer = std::max(report.slowest_answer, took);
  if (took <= kLate) return;
  ++report.late;
  Finding finding = FindingOf(frame, "sdo_late", true, node,
                              SdoText(node) + "late answer about " + ObjectText(object));
  finding.duration = took;
  finding.detail = ", after " + SecondsText(took) + " s: the library waits 0.100 s";
  finding.fields.Add("index", object & 0xFFFFU).Add("sub", object >> 16U);
  findings_.Add(std::move(finding));
}

// To ask a drive whether it has an object is how a host finds out what it can do.
bool SdoWatch::OnlyAsks(const Key& key, std::uint32_t abort_code) const {
  const auto waiting = requests_.find(key);
  return waiting != requests_.end() && waiting->second.back().reads && SaysAbsent(abort_code);
}

void SdoWatch::HearAbort(int node, bool response, const KeptFrame& frame) {
  NodeReport& report = report_.nodes[node];
  report.sends = report.sends || response;
  ++report.aborts;
  const Key key(node, ObjectOf(frame));
  const std::uint32_t code = LittleEndian(frame.data + 4, 4);
  // A scan gives up every node that is not there.
  const bool anomaly = response ? !OnlyAsks(key, code) : report.sends;
  requests_.erase(key);
  Finding finding =
      FindingOf(frame, "sdo_abort", anomaly, node,
                DecodeFrame(Logged(frame), make_).text + (response ? "" : " (by the host)"));
  finding.fields.Add("index", ObjectOf(frame) & 0xFFFFU)
      .Add("sub", frame.data[3])
      .Add("abort_code", code)
      .Add("abort_text", AbortCodeText(code));
  findings_.Add(std::move(finding));
}

// A node that was never heard may not be there: a scan asks all of them.
void SdoWatch::Unanswered(const Key& key, const Request& request) {
  NodeReport& report = report_.nodes[key.first];
  ++report.unanswered;
  Finding finding;
  finding.nanoseconds = request.nanoseconds;
  finding.line = request.line;
  finding.kind = "sdo_unanswered";
  finding.anomaly = true;
  finding.node = key.first;
  finding.text = SdoText(key.first) + "no answer about " + ObjectText(key.second);
  finding.fields.Add("index", key.second & 0xFFFFU).Add("sub", key.second >> 16U);
  if (request.heard) findings_.Add(std::move(finding));
}

void SdoWatch::Tick(std::int64_t now) {
  if (now - ticked_ < kTick) return;
  ticked_ = now;
  for (auto waiting = requests_.begin(); waiting != requests_.end();) {
    std::deque<Request>& requests = waiting->second;
    while (!requests.empty() && now - requests.front().nanoseconds > kNever) {
      Unanswered(waiting->first, requests.front());
      requests.pop_front();
    }
    waiting = requests.empty() ? requests_.erase(waiting) : std::next(waiting);
  }
}

}  // namespace motorctl
