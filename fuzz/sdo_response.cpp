// The SDO client: whatever comes as an answer, the first frame that matches decides, and nothing
// else does.
#include <semaphore.h>

#include <chrono>
#include <optional>
#include <thread>
#include <vector>

#include "bus.h"
#include "input.h"

namespace {

using Clock = std::chrono::steady_clock;

class Drive : public DriverCommon {
 public:
  Drive() : DriverCommon(fuzz::kDevice) {}
  bool ActiveNode(std::uint8_t) override { return false; }
  std::uint16_t SetSpeedMode(std::uint8_t) override { return 0; }
  std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t, std::uint16_t) override { return 0; }
  bool CheckStatus(std::uint8_t) override { return false; }
  bool SaveAllParams(std::uint8_t) override { return false; }
  std::uint32_t GetNumberOfPulsesPerRevolution() override { return 0; }
};

// A thread that answers one request with the frames it was given.
class Server {
 public:
  explicit Server(fuzz::FarEnd& far_end) : far_end_(far_end) {
    ::sem_init(&begin_, 0, 0);
    ::sem_init(&done_, 0, 0);
    thread_ = std::thread([this] { Run(); });
  }
  ~Server() {
    answers_ = nullptr;
    ::sem_post(&begin_);
    thread_.join();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  void Begin(const std::vector<CanFrame>& answers) {
    answers_ = &answers;
    ::sem_post(&begin_);
  }
  // The request.
  CanFrame End() {
    Wait(done_);
    return request_;
  }

 private:
  static void Wait(sem_t& semaphore) {
    while (::sem_wait(&semaphore) != 0) {
    }
  }
  void Run() {
    for (;;) {
      Wait(begin_);
      if (answers_ == nullptr) {
        return;
      }
      request_ = far_end_.Receive();
      for (const CanFrame& answer : *answers_) {
        far_end_.Send(answer);
      }
      ::sem_post(&done_);
    }
  }

  fuzz::FarEnd& far_end_;
  sem_t begin_ = {};
  sem_t done_ = {};
  const std::vector<CanFrame>* answers_ = nullptr;
  CanFrame request_ = {};
  std::thread thread_;
};

struct Request {
  std::uint32_t can_id;
  std::uint8_t command;
  std::uint16_t index;
  std::uint8_t sub_index;
  std::uint32_t data;
};

bool Matches(const Request& request, const CanFrame& frame) {
  return frame.can_id == request.can_id - 0x80 && frame.len > 3 &&
         fuzz::Load(frame.data + 1, 2) == request.index && frame.data[3] == request.sub_index;
}

std::uint32_t DataOf(const CanFrame& frame) {
  return frame.len == 8 ? fuzz::Load(frame.data + 4, 4) : 0;
}

bool Succeeds(std::uint8_t command, const CanFrame& answer) {
  const std::uint8_t response = answer.data[0];
  switch (command) {
    case 0x40:
      return response == 0x43 || response == 0x47 || response == 0x4B || response == 0x4F;
    case 0x23:
    case 0x27:
    case 0x2B:
    case 0x2F:
      return response == 0x60;
    default:
      return false;
  }
}

// Ends the wait of a transfer that nothing else answers: an abort.
CanFrame LastAnswer(const Request& request) {
  CanFrame abort = {};
  abort.can_id = request.can_id - 0x80;
  abort.len = 8;
  abort.data[0] = 0x80;
  abort.data[1] = static_cast<std::uint8_t>(request.index);
  abort.data[2] = static_cast<std::uint8_t>(request.index >> 8);
  abort.data[3] = request.sub_index;
  return abort;
}

CanFrame FirstMatch(const Request& request, const std::vector<CanFrame>& frames) {
  return *std::find_if(frames.begin(), frames.end(),
                       [&](const CanFrame& frame) { return Matches(request, frame); });
}

void CheckRequest(const Request& request, const CanFrame& sent) {
  fuzz::Require(sent.can_id == request.can_id && sent.len == 8 && sent.data[0] == request.command &&
                    fuzz::Load(sent.data + 1, 2) == request.index &&
                    sent.data[3] == request.sub_index &&
                    fuzz::Load(sent.data + 4, 4) == request.data,
                "the request");
}

// One confirmed transfer.
void Transfer(Drive& drive, Server& server, const Request& request,
              const std::vector<CanFrame>& answers, bool with_data) {
  server.Begin(answers);
  const auto begin = Clock::now();
  std::uint32_t data = 0;
  const bool accepted =
      with_data ? drive.SdoWriteWithFeedbackData(request.can_id, request.command, request.index,
                                                 request.sub_index, request.data, &data)
                : drive.SdoWriteWithFeedback(request.can_id, request.command, request.index,
                                             request.sub_index, request.data);
  // A machine that stood still for so long made a time-out, which tells nothing.
  const bool in_time = Clock::now() - begin < std::chrono::milliseconds(100);
  CheckRequest(request, server.End());
  if (in_time) {
    const CanFrame answer = FirstMatch(request, answers);
    fuzz::Require(accepted == Succeeds(request.command, answer), "accepted or not");
    fuzz::Require(!with_data || data == DataOf(answer), "data of the answer");
  }
}

// The waiting half alone, on frames that are queued already.
void Await(Drive& drive, fuzz::FarEnd& far_end, const Request& request,
           const std::vector<CanFrame>& answers) {
  for (const CanFrame& answer : answers) {
    far_end.Send(answer);
  }
  far_end.Flush();
  std::uint8_t command = 0;
  std::uint32_t data = 0;
  if (drive.WaitSdoResponse(request.can_id - 0x80, request.index, request.sub_index, &command,
                            &data)) {
    const CanFrame answer = FirstMatch(request, answers);
    fuzz::Require(command == answer.data[0] && data == DataOf(answer), "what the answer says");
  }
}

// One frame after the other, whatever it is.
void ReadAll(Drive& drive, fuzz::FarEnd& far_end, const std::vector<CanFrame>& frames) {
  for (const CanFrame& frame : frames) {
    far_end.Send(frame);
  }
  far_end.Flush();
  for (const CanFrame& frame : frames) {
    Request read = {1, 1, 1, 1, 1};
    const bool parsed =
        drive.SdoRead(&read.can_id, &read.command, &read.index, &read.sub_index, &read.data);
    const bool whole = frame.len > 3;
    fuzz::Require(parsed == whole, "long enough or not");
    fuzz::Require(read.can_id == (whole ? frame.can_id : 0) &&
                      read.command == (whole ? frame.data[0] : 0) &&
                      read.index == (whole ? fuzz::Load(frame.data + 1, 2) : 0) &&
                      read.sub_index == (whole ? frame.data[3] : 0) && read.data == DataOf(frame),
                  "what the frame says");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static Drive drive;
  static fuzz::FarEnd far_end(drive);
  static Server server(far_end);

  fuzz::Input input(bytes, size);
  const std::uint8_t operation = input.Byte() % 4;
  Request request = {};
  request.can_id = 0x600U + input.Byte();
  request.command = input.Byte();
  request.index = static_cast<std::uint16_t>(input.Number(2));
  request.sub_index = input.Byte();
  request.data = input.Number(4);
  std::vector<CanFrame> frames = input.Frames();
  if (operation == 3) {
    ReadAll(drive, far_end, frames);
    return 0;
  }
  frames.push_back(LastAnswer(request));
  if (operation == 2) {
    Await(drive, far_end, request, frames);
  } else {
    Transfer(drive, server, request, frames, operation == 1);
  }
  far_end.Flush();
  drive.ClearReadQueue();
  return 0;
}
