#include "sim/object_dictionary.h"

#include <cstdio>
#include <stdexcept>
#include <string>

#include "sim/frame.h"

namespace sim {
namespace {

std::string Name(std::uint16_t index, std::uint8_t sub) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%04X:%u", unsigned{index}, unsigned{sub});
  return text;
}

std::uint32_t Cut(std::uint32_t value, unsigned size) {
  return size >= 4 ? value : value & ((1U << (8 * size)) - 1U);
}

}  // namespace

std::uint32_t Object::Read() const { return Cut(on_read_ ? on_read_() : value_, size_); }

AbortCode Object::Write(std::uint32_t value) {
  value = Cut(value, size_);
  if (value > max_) return AbortCode::kValueTooHigh;
  if (value < min_) return AbortCode::kValueTooLow;
  if (on_write_) {
    const AbortCode refused = on_write_(value);
    if (refused != AbortCode::kNone) return refused;
  }
  value_ = value;
  return AbortCode::kNone;
}

Bytes Object::ReadBytes() const {
  if (is_string()) return {text_.begin(), text_.end()};
  Bytes bytes(size_);
  PutLittleEndian(bytes.begin(), size_, Read());
  return bytes;
}

AbortCode Object::WriteBytes(const Bytes& bytes) {
  if (!is_string()) {
    return Write(GetLittleEndian(bytes.begin(), static_cast<unsigned>(bytes.size())));
  }
  text_.assign(bytes.begin(), bytes.end());
  return AbortCode::kNone;
}

Object& ObjectDictionary::Add(std::uint16_t index, std::uint8_t sub, unsigned size, Access access,
                              std::uint32_t initial) {
  const auto [entry, added] = objects_.try_emplace({index, sub}, size, access, initial);
  if (!added) throw std::logic_error("object " + Name(index, sub) + " is defined twice");
  return entry->second;
}

Object& ObjectDictionary::AddString(std::uint16_t index, std::uint8_t sub, Access access,
                                    const std::string& initial, std::size_t longest) {
  const auto [entry, added] = objects_.try_emplace({index, sub}, access, initial, longest);
  if (!added) throw std::logic_error("object " + Name(index, sub) + " is defined twice");
  return entry->second;
}

ObjectDictionary::Found ObjectDictionary::Find(std::uint16_t index, std::uint8_t sub) {
  const auto entry = objects_.find({index, sub});
  if (entry != objects_.end()) return {AbortCode::kNone, &entry->second};
  const auto of_index = objects_.lower_bound({index, 0});
  const bool index_exists = of_index != objects_.end() && of_index->first.first == index;
  return {index_exists ? AbortCode::kNoSubIndex : AbortCode::kNoObject, nullptr};
}

ObjectDictionary::Uploaded ObjectDictionary::Upload(std::uint16_t index, std::uint8_t sub) {
  const Found found = Find(index, sub);
  if (found.object == nullptr) return {found.error, {}};
  if (!found.object->readable()) return {AbortCode::kWriteOnly, {}};
  if (!found.object->has_data()) return {AbortCode::kNoData, {}};
  return {AbortCode::kNone, found.object->ReadBytes()};
}

AbortCode ObjectDictionary::MayDownload(std::uint16_t index, std::uint8_t sub,
                                        std::optional<std::size_t> size) {
  const Found found = Find(index, sub);
  if (found.object == nullptr) return found.error;
  if (!found.object->writable()) return AbortCode::kReadOnly;
  if (!size) return AbortCode::kNone;
  if (*size > found.object->longest()) return AbortCode::kLengthTooHigh;
  // A string may be as short as it likes: its size is 0 here.
  const bool too_short = *size < found.object->size() && !found.object->accepts_short();
  return too_short ? AbortCode::kLengthTooLow : AbortCode::kNone;
}

AbortCode ObjectDictionary::Download(std::uint16_t index, std::uint8_t sub, unsigned size,
                                     std::uint32_t value) {
  const Found found = Find(index, sub);
  const bool number = found.object != nullptr && !found.object->is_string();
  if (size == 0) size = number ? found.object->size() : 4;
  Bytes bytes(size);
  PutLittleEndian(bytes.begin(), size, value);
  return Download(index, sub, bytes);
}

AbortCode ObjectDictionary::Download(std::uint16_t index, std::uint8_t sub, const Bytes& bytes) {
  const AbortCode refused = MayDownload(index, sub, bytes.size());
  return refused == AbortCode::kNone ? objects_.at({index, sub}).WriteBytes(bytes) : refused;
}

const Object& ObjectDictionary::At(std::uint16_t index, std::uint8_t sub) const {
  const auto entry = objects_.find({index, sub});
  if (entry == objects_.end()) throw std::out_of_range("no object " + Name(index, sub));
  return entry->second;
}

std::uint32_t ObjectDictionary::Get(std::uint16_t index, std::uint8_t sub) const {
  return At(index, sub).Read();
}

const std::string& ObjectDictionary::Text(std::uint16_t index, std::uint8_t sub) const {
  return At(index, sub).text();
}

AbortCode ObjectDictionary::Set(std::uint16_t index, std::uint8_t sub, std::uint32_t value) {
  const auto entry = objects_.find({index, sub});
  if (entry == objects_.end()) throw std::out_of_range("no object " + Name(index, sub));
  return entry->second.Write(value);
}

void ObjectDictionary::SetPowerOnValue(std::uint16_t index, std::uint8_t sub, std::uint32_t value) {
  const auto entry = objects_.find({index, sub});
  if (entry == objects_.end()) throw std::out_of_range("no object " + Name(index, sub));
  entry->second.SetPowerOnValue(value);
}

void ObjectDictionary::Reset(std::uint16_t first_index, std::uint16_t last_index) {
  for (auto& [key, object] : objects_) {
    if (key.first >= first_index && key.first <= last_index) object.Reset();
  }
}

}  // namespace sim
