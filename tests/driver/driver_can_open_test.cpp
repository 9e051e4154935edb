// A socket is opened for an interface that is there, or not.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <string>
#include <system_error>

#include "bus_environment.h"
#include "driver_can_fixture.h"
#include "eventually.h"
#include "far_end.h"
#include "output_capture.h"
#include "processes.h"

namespace {

TEST_F(DriverCanOpen, LogsItsLife) {
  OutputCapture output;
  {
    const DriverCan can("can0");
    EXPECT_EQ(WithoutNumbers(output.Out()), kConstructed);
    EXPECT_EQ(can.GetCanError(), 0U);
    EXPECT_EQ(can.GetWriteErrorCount(), 0U);
    EXPECT_TRUE(support::WaitThreads(2));
    output.Clear();
  }
  EXPECT_EQ(WithoutNumbers(output.Out()), kDestroyed);
  EXPECT_EQ(output.Err(), "");
}

TEST_F(DriverCanOpen, AThreadThatCannotBeStartedLeavesNoDescriptor) {
  OutputCapture output;
  const std::size_t descriptors = support::OpenDescriptors();
  pthread_attr_t usual = {};
  pthread_attr_t huge = {};
  pthread_getattr_default_np(&usual);
  pthread_attr_init(&huge);
  pthread_attr_setstacksize(&huge, std::size_t{1} << 48);  // more than there are addresses
  ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
  EXPECT_THROW(const DriverCan can("can0"), std::system_error);
  pthread_setattr_default_np(&usual);
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
}

TEST_F(DriverCanOpen, AnAbsentInterfaceIsError2) {
  const std::size_t descriptors = support::OpenDescriptors();
  OutputCapture output;
  {
    DriverCan can("can7");
    EXPECT_EQ(WithoutNumbers(output.Out()),
              "[INFO] device is can7\n"
              "[INFO] Initializing CAN socket for device: can7\n"
              "[ERROR] get can interface index failed, errno: 19\n"
              "[ERROR] Failed to initialize CAN socket in constructor\n");
    EXPECT_TRUE(support::AreConsecutive(support::LogNumbers(output.Out())));
    EXPECT_EQ(can.GetCanError(), 2U);
    EXPECT_TRUE(support::WaitThreads(1));

    output.Clear();
    EXPECT_FALSE(Write(can, "123#"));
    EXPECT_EQ(WithoutNumbers(output.Out()), "[ERROR] write error, CAN socket is not initialized\n");
    EXPECT_EQ(can.GetCanError(), 5U);
    EXPECT_EQ(can.GetWriteErrorCount(), 0U);

    output.Clear();
    for (int i = 0; i < 20; ++i) {
      EXPECT_FALSE(Write(can, "123#"));
    }
    EXPECT_EQ(output.Out(), "");
    EXPECT_EQ(can.GetCanError(), 5U);
    EXPECT_EQ(can.GetWriteErrorCount(), 0U);
  }
  EXPECT_EQ(WithoutNumbers(output.Out()), kDestroyed);
  output.Stop();
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
}

TEST_F(DriverCanOpen, AnInterfaceThatIsNoCanBusIsError2) {
  const std::size_t descriptors = support::OpenDescriptors();
  OutputCapture output;
  {
    const DriverCan can("lo");
    EXPECT_EQ(can.GetCanError(), 2U);
  }
  EXPECT_EQ(WithoutNumbers(output.Out()),
            "[INFO] device is lo\n"
            "[INFO] Initializing CAN socket for device: lo\n"
            "[ERROR] bind can device error!\n"
            "[ERROR] Failed to initialize CAN socket in constructor\n"
            "[INFO] DriverCan destroyed successfully\n");
  output.Stop();
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
}

TEST_F(DriverCanOpen, NoDescriptorLeftIsError1) {
  const support::ProcessResult result = support::RunForked([] {
    AllowDescriptors(3);
    const DriverCan can("can0");
    std::printf("error %u\n", can.GetCanError());
    std::fflush(stdout);
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "socket can create error!\n: Too many open files\n");
  EXPECT_EQ(WithoutNumbers(result.out),
            "[INFO] device is can0\n"
            "[INFO] Initializing CAN socket for device: can0\n"
            "[ERROR] Failed to create CAN socket for device: can0\n"
            "[ERROR] Failed to initialize CAN socket in constructor\n"
            "error 1\n"
            "[INFO] DriverCan destroyed successfully\n");
}

TEST_F(DriverCanOpen, ANameOf15CharactersIsLookedUp) {
  OutputCapture output;
  const std::string name(15, 'x');
  {
    const DriverCan can(name.c_str());
    EXPECT_EQ(can.GetCanError(), 2U);
  }
  EXPECT_EQ(WithoutNumbers(output.Out()),
            "[INFO] device is " + name + "\n[INFO] Initializing CAN socket for device: " + name +
                "\n[ERROR] get can interface index failed, errno: 19\n"
                "[ERROR] Failed to initialize CAN socket in constructor\n" +
                kDestroyed);
}

TEST_F(DriverCanOpen, AnInterfaceWithANameOf15CharactersOpens) {
  bus::SetDown("can0");
  bus::Command("ip link set can0 name abcdefghijklmno && ip link set abcdefghijklmno up");
  {
    const DriverCan can("abcdefghijklmno");
    EXPECT_EQ(can.GetCanError(), 0U);
  }
  bus::Command("ip link delete abcdefghijklmno");
}

TEST_F(DriverCanOpen, ANameOf16To31CharactersIsFatalAtTheInterfaceLookUp) {
  for (const std::size_t length : {16U, 31U}) {
    const std::string name(length, 'n');
    const support::ProcessResult result =
        support::RunForked([&] { const DriverCan can(name.c_str()); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.err,
              "CAN device name is too long for a network interface: at most 15 characters\n");
    EXPECT_EQ(
        WithoutNumbers(result.out),
        "[INFO] device is " + name + "\n[INFO] Initializing CAN socket for device: " + name + "\n");
  }
}

TEST_F(DriverCanOpen, ANameTooLongForAnInterfaceNeedsASocketToBeFatal) {
  const support::ProcessResult result = support::RunForked([] {
    AllowDescriptors(3);
    const DriverCan can("sixteen_letters_");
    std::printf("error %u\n", can.GetCanError());
    std::fflush(stdout);
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_NE(result.out.find("error 1\n"), std::string::npos) << result.out;
}

TEST_F(DriverCanOpen, ANameOf32CharactersIsFatalAtOnce) {
  const std::string name(32, 'n');
  const support::ProcessResult result =
      support::RunForked([&] { const DriverCan can(name.c_str()); });
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_EQ(result.err, "CAN device name is too long for this library: at most 31 characters\n");
  EXPECT_EQ(result.out, "");
}

TEST_F(DriverCanOpen, AnEmptyOrMissingNameIsAnAbsentInterface) {
  for (const char* name : {"", static_cast<const char*>(nullptr)}) {
    OutputCapture output;
    {
      const DriverCan can(name);
      EXPECT_EQ(can.GetCanError(), 2U);
    }
    EXPECT_EQ(WithoutNumbers(output.Out()),
              "[INFO] device is \n"
              "[INFO] Initializing CAN socket for device: \n"
              "[ERROR] get can interface index failed, errno: 19\n"
              "[ERROR] Failed to initialize CAN socket in constructor\n"
              "[INFO] DriverCan destroyed successfully\n");
  }
}

TEST_F(DriverCanOpen, InitCanSocketReplacesTheSocketAndKeepsErrorAndCount) {
  DriverCan can("can0");
  bus::FarEnd far_end;
  bus::SetDown("can0");
  ASSERT_TRUE(Eventually([&] { return can.GetCanError() == 3; }));
  for (int i = 0; i < 9; ++i) {
    EXPECT_FALSE(Write(can, "123#"));
  }
  bus::SetUp("can0");
  OutputCapture output;
  const std::size_t descriptors = support::OpenDescriptors();
  EXPECT_TRUE(can.InitCanSocket());
  EXPECT_EQ(WithoutNumbers(output.Out()), "[INFO] Initializing CAN socket for device: can0\n");
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
  EXPECT_EQ(can.GetCanError(), 3U);
  EXPECT_EQ(can.GetWriteErrorCount(), 9U);
  far_end.Send("181#01");  // ends the read of the old socket
  far_end.Send("182#02");
  EXPECT_TRUE(Eventually([&] { return can.GetReadQueueSize() >= 2; }));
  EXPECT_EQ(Take(can, 0).back(), "182#02");
}

TEST_F(DriverCanOpen, AFailedInitCanSocketKeepsTheOldSocket) {
  DriverCan can("can0");
  bus::FarEnd far_end;
  const std::size_t descriptors = support::OpenDescriptors();
  bus::Command("ip link set can0 down && ip link set can0 name moved0 && ip link set moved0 up");
  EXPECT_FALSE(can.InitCanSocket());
  EXPECT_EQ(can.GetCanError(), 2U);
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
  EXPECT_TRUE(Write(can, "123#"));
  EXPECT_EQ(far_end.Frames(), Texts{"123#"});
  bus::Command("ip link delete moved0");
}

}  // namespace
