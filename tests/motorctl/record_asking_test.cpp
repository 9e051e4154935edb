// Who may ask a recorder for a record, and who may be asked.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>

#include "processes.h"
#include "record_bench.h"

namespace {

constexpr uid_t kOther = 1000;

// The address of the recorder of can0.
struct Address {
  sockaddr_un address = {};
  socklen_t size = 0;

  Address() {
    address.sun_family = AF_UNIX;
    const std::string name = "motor-driver-record/can0";
    std::copy(name.begin(), name.end(), address.sun_path + 1);
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
};

int Socket() { return ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0); }

int Connected() {
  const int socket = Socket();
  const Address name;
  return ::connect(socket, name.get(), name.size) == 0 ? socket : -1;
}

std::string Received(int socket) {
  char text[4096];
  const ssize_t bytes = ::recv(socket, text, sizeof(text), 0);
  ::close(socket);
  return std::string(text, static_cast<std::size_t>(std::max<ssize_t>(bytes, 0)));
}

// A process of another user that has the address first, and tells whoever asks the same.
class Squatter {
 public:
  explicit Squatter(const std::string& answer) {
    int ready[2] = {};
    EXPECT_EQ(::pipe(ready), 0);
    child_ = ::fork();
    if (child_ == 0) {
      const Address name;
      const int socket = Socket();
      const bool has_it = ::setuid(kOther) == 0 && ::bind(socket, name.get(), name.size) == 0 &&
                          ::listen(socket, 8) == 0;
      if (!has_it || ::write(ready[1], "r", 1) != 1) ::_exit(1);
      for (;;) {
        const int asking = ::accept(socket, nullptr, nullptr);
        ::send(asking, answer.data(), answer.size(), MSG_NOSIGNAL);
        ::close(asking);
      }
    }
    char byte = 0;
    ::close(ready[1]);
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
  }
  ~Squatter() {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }
  Squatter(const Squatter&) = delete;
  Squatter& operator=(const Squatter&) = delete;

  std::string Name() const {
    return "process " + std::to_string(child_) + " of user " + std::to_string(kOther);
  }

 private:
  pid_t child_ = -1;
};

TEST_F(RecordTest, AnswersOnlyToRootAndItsUser) {
  Process recorder(Recording());
  AwaitStart(recorder);
  const std::string out = directory_ + "/out";
  bus::Command("setpriv --reuid 1000 --regid 1000 --clear-groups " MOTORCTL " record --now >" +
               out + " 2>&1 || true");
  EXPECT_EQ(Text(out), "motorctl: the recorder of can0 is process " +
                           std::to_string(recorder.pid()) +
                           " of user 0: ask as that user or as root\n");
  const support::ProcessResult other = support::RunForked([] {
    if (::setuid(kOther) != 0) ::_exit(1);
    for (int i = 0; i < 3; ++i) std::printf("%s\n", Received(Connected()).c_str());
  });
  const std::string refused = "!only root and the user of the recorder may ask\n";
  EXPECT_EQ(other.out, refused + refused + refused);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_EQ(Folders().size(), 0U);
}

TEST_F(RecordTest, HoldsAFewConnections) {
  Process recorder(Recording({}, "2"));
  AwaitStart(recorder);
  std::vector<int> askers;
  for (int i = 0; i < 20; ++i) askers.push_back(Connected());
  std::size_t refused = 0;
  std::size_t recorded = 0;
  for (const int asker : askers) {
    const std::string answer = Received(asker);
    refused += answer == "!too many ask at once; wait for their records" ? 1 : 0;
    recorded += answer[0] == '+' ? 1 : 0;
  }
  EXPECT_EQ(refused, 12U);
  EXPECT_EQ(recorded, 8U);
  EXPECT_EQ(Motorctl({"record", "--now"}).status, 0);
}

TEST_F(RecordTest, RecordsThoughAnotherUserHasItsAddress) {
  const Squatter squatter("+/tmp/\x1b[2J\xc2\x9b\xc3\xa4");
  Process recorder(Recording());
  ASSERT_TRUE(Eventually([&] {
    return Contains(recorder.Err(), squatter.Name() +
                                        " has the address of the recorder of can0: \"motorctl "
                                        "record --now\" does not reach this one, SIGUSR1 does");
  })) << recorder.Err();
  recorder.Signal(SIGUSR1);
  EXPECT_TRUE(AwaitFolders(1));
  const Result now = Motorctl({"record", "--now"});
  EXPECT_EQ(now.out, "/tmp/\\x1B[2J\\xC2\\x9B\xc3\xa4\n");
  EXPECT_EQ(now.err, "motorctl: the answer is that of " + squatter.Name() + "\n");
  EXPECT_EQ(Folders().size(), 1U);
}

}  // namespace
