#include "output_capture.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <regex>

#include "processes.h"

namespace support {
namespace {

const std::regex& LogPrefix() {
  static const std::regex prefix(R"(^([ 0-9]{3}) (\[(?:DEBUG|INFO|WARN|ERROR)\] ))");
  return prefix;
}

void FlushAll() {
  std::fflush(nullptr);
  std::cout.flush();
  std::cerr.flush();
}

}  // namespace

OutputCapture::OutputCapture() {
  FlushAll();
  for (int i = 0; i < 2; ++i) {
    saved_[i] = ::dup(1 + i);
    memory_[i] = ::memfd_create("captured", MFD_CLOEXEC);
    ::dup2(memory_[i], 1 + i);
  }
}

OutputCapture::~OutputCapture() {
  Stop();
  if (::testing::Test::HasFailure()) {
    std::cout << "captured standard output:\n" << Out() << "captured standard error:\n" << Err();
  }
}

std::string OutputCapture::Read(int stream) {
  if (!capturing_) {
    return text_[stream];
  }
  FlushAll();
  return ReadWhole(memory_[stream]);
}

std::string OutputCapture::Out() { return Read(0); }

std::string OutputCapture::Err() { return Read(1); }

void OutputCapture::Clear() {
  FlushAll();
  for (const int memory : memory_) {
    EXPECT_EQ(::ftruncate(memory, 0), 0);
    ::lseek(memory, 0, SEEK_SET);
  }
}

void OutputCapture::Stop() {
  if (!capturing_) {
    return;
  }
  for (int i = 0; i < 2; ++i) {
    text_[i] = Read(i);
  }
  capturing_ = false;
  for (int i = 0; i < 2; ++i) {
    ::dup2(saved_[i], 1 + i);
    ::close(saved_[i]);
    ::close(memory_[i]);
  }
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t end = text.find('\n', begin);
    lines.push_back(text.substr(begin, end - begin));
    begin = end == std::string::npos ? text.size() : end + 1;
  }
  return lines;
}

std::string WithoutNumbers(const std::string& text) {
  std::string result;
  std::size_t begin = 0;
  for (const std::string& line : Lines(text)) {
    result += std::regex_replace(line, LogPrefix(), "$2");
    begin += line.size();
    if (begin < text.size()) {
      result += '\n';
      ++begin;
    }
  }
  return result;
}

std::vector<int> LogNumbers(const std::string& text) {
  std::vector<int> numbers;
  for (const std::string& line : Lines(text)) {
    std::smatch match;
    if (std::regex_search(line, match, LogPrefix())) {
      numbers.push_back(std::stoi(match[1]));
    }
  }
  return numbers;
}

bool AreConsecutive(const std::vector<int>& numbers) {
  for (std::size_t i = 1; i < numbers.size(); ++i) {
    if (numbers[i] != (numbers[i - 1] + 1) % 128) {
      return false;
    }
  }
  return true;
}

}  // namespace support
