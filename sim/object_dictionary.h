#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sim {

/// SDO abort codes of CiA 301.
enum class AbortCode : std::uint32_t {
  kNone = 0,
  kToggle = 0x05030000,
  kTimedOut = 0x05040000,
  kUnknownCommand = 0x05040001,
  kWriteOnly = 0x06010001,
  kReadOnly = 0x06010002,
  kNoObject = 0x06020000,
  kCannotBeMapped = 0x06040041,
  kPdoLengthExceeded = 0x06040042,
  kLengthTooHigh = 0x06070012,
  kLengthTooLow = 0x06070013,
  kNoSubIndex = 0x06090011,
  kInvalidValue = 0x06090030,
  kValueTooHigh = 0x06090031,
  kValueTooLow = 0x06090032,
  kGeneral = 0x08000000,
  kNotStored = 0x08000020,
  kDeviceState = 0x08000022,
  kNoData = 0x08000024,
};

enum class Access { kReadOnly, kWriteOnly, kReadWrite, kConst };

/// What a transfer carries, in the order of the wire.
using Bytes = std::vector<std::uint8_t>;

/// One entry: a number of one to four bytes, which an expedited transfer can carry, or a string,
/// which takes a transfer in segments where it is longer.
class Object {
 public:
  using WriteHook = std::function<AbortCode(std::uint32_t)>;
  using ReadHook = std::function<std::uint32_t()>;

  Object(unsigned size, Access access, std::uint32_t initial)
      : size_(size), access_(access), initial_(initial), value_(initial) {}
  /// A string of at most `longest` bytes.
  Object(Access access, const std::string& initial, std::size_t longest)
      : size_(0), access_(access), longest_(longest), initial_text_(initial), text_(initial) {}

  /// Values outside are refused. Unsigned; an object with signed limits uses OnWrite.
  Object& Range(std::uint32_t min, std::uint32_t max) {
    min_ = min;
    max_ = max;
    has_range_ = true;
    return *this;
  }
  Object& Mappable() {
    mappable_ = true;
    return *this;
  }
  /// Changes all the while that the motor turns, so that a change is not an event for a PDO.
  Object& Continuous() {
    continuous_ = true;
    return *this;
  }
  /// A download of fewer bytes is extended by zeros.
  Object& AcceptShort() {
    accepts_short_ = true;
    return *this;
  }
  /// Called before the value is stored; anything but kNone refuses it.
  Object& OnWrite(WriteHook hook) {
    on_write_ = std::move(hook);
    return *this;
  }
  /// The value is made by the hook at every read instead of being stored.
  Object& OnRead(ReadHook hook) {
    on_read_ = std::move(hook);
    return *this;
  }

  /// At other times there is no data, which an upload is told.
  Object& ReadableWhile(std::function<bool()> hook) {
    has_data_ = std::move(hook);
    return *this;
  }

  /// Of a number; 0 of a string.
  unsigned size() const { return size_; }
  bool is_string() const { return size_ == 0; }
  std::size_t longest() const { return is_string() ? longest_ : size_; }
  Access access() const { return access_; }
  bool has_data() const { return !has_data_ || has_data_(); }
  bool has_range() const { return has_range_; }
  std::uint32_t min() const { return min_; }
  std::uint32_t max() const { return max_; }
  bool mappable() const { return mappable_; }
  bool continuous() const { return continuous_; }
  bool accepts_short() const { return accepts_short_; }
  bool readable() const { return access_ != Access::kWriteOnly; }
  bool writable() const { return access_ == Access::kReadWrite || access_ == Access::kWriteOnly; }

  std::uint32_t Read() const;
  AbortCode Write(std::uint32_t value);
  /// The same of either kind, in bytes. A write has what MayDownload allows.
  Bytes ReadBytes() const;
  AbortCode WriteBytes(const Bytes& bytes);
  const std::string& text() const { return text_; }
  void Reset() {
    value_ = initial_;
    text_ = initial_text_;
  }
  void SetPowerOnValue(std::uint32_t value) { initial_ = value_ = value; }

 private:
  unsigned size_;
  Access access_;
  std::uint32_t initial_ = 0;
  std::uint32_t value_ = 0;
  std::size_t longest_ = 0;
  std::string initial_text_;
  std::string text_;
  std::uint32_t min_ = 0;
  std::uint32_t max_ = std::numeric_limits<std::uint32_t>::max();
  bool has_range_ = false;
  bool mappable_ = false;
  bool continuous_ = false;
  bool accepts_short_ = false;
  WriteHook on_write_;
  ReadHook on_read_;
  std::function<bool()> has_data_;
};

/// Object dictionary of CiA 301: entries by index and sub-index, with the checks that a server
/// makes.
class ObjectDictionary {
 public:
  using Objects = std::map<std::pair<std::uint16_t, std::uint8_t>, Object>;

  struct Found {
    AbortCode error;  // kNoObject or kNoSubIndex when object is null
    Object* object;
  };
  struct Uploaded {
    AbortCode error;
    Bytes bytes;
  };

  /// Throws std::logic_error when the entry exists: a make must not silently replace another's.
  Object& Add(std::uint16_t index, std::uint8_t sub, unsigned size, Access access,
              std::uint32_t initial = 0);
  Object& AddString(std::uint16_t index, std::uint8_t sub, Access access,
                    const std::string& initial, std::size_t longest);

  Found Find(std::uint16_t index, std::uint8_t sub);
  /// By index, then sub-index.
  const Objects& objects() const { return objects_; }

  /// What an SDO client may do. An expedited download of size 0 did not indicate its size and takes
  /// the object's; a string then takes all four bytes.
  Uploaded Upload(std::uint16_t index, std::uint8_t sub);
  AbortCode Download(std::uint16_t index, std::uint8_t sub, unsigned size, std::uint32_t value);
  AbortCode Download(std::uint16_t index, std::uint8_t sub, const Bytes& bytes);
  /// Whether a download can begin, before its data are there; no size: it was not indicated.
  AbortCode MayDownload(std::uint16_t index, std::uint8_t sub, std::optional<std::size_t> size);

  /// What the device itself may do: no access or size check. Throw std::out_of_range when absent.
  const Object& At(std::uint16_t index, std::uint8_t sub) const;
  std::uint32_t Get(std::uint16_t index, std::uint8_t sub) const;
  AbortCode Set(std::uint16_t index, std::uint8_t sub, std::uint32_t value);
  const std::string& Text(std::uint16_t index, std::uint8_t sub) const;

  /// For the making of a device: no hook is called.
  void SetPowerOnValue(std::uint16_t index, std::uint8_t sub, std::uint32_t value);

  /// Power-on values again for the objects of these indices; no hook is called.
  void Reset(std::uint16_t first_index, std::uint16_t last_index);

 private:
  Objects objects_;
};

}  // namespace sim
