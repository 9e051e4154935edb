// A small EDS file, and what is read of it.
#pragma once

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "eds.h"

namespace motorctl {

inline const std::string kEds = R"([FileInfo]
FileName=small.eds
; a comment
[DeviceInfo]
VendorName=Nobody
VendorNumber=0x00FFFF01
ProductName=Small
ProductNumber=7
RevisionNumber=0x10000
[MandatoryObjects]
SupportedObjects=2
1=0x1000
2=0x1018
[1000]
ParameterName=Device type
ObjectType=0x7
DataType=0x0007
AccessType=const
DefaultValue=0x00020192
PDOMapping=0
[1018]
ParameterName=Identity
ObjectType=0x9
SubNumber=2
[1018sub0]
ParameterName=Highest sub-index
DataType=0x0005
AccessType=const
DefaultValue=1
[1018sub1]
ParameterName=Vendor-ID
DataType=0x0007
AccessType=ro
[OptionalObjects]
SupportedObjects=2
1=0x1003
2=0x1014
[1003]
ParameterName=Error history
ObjectType=0x8
CompactSubObj=3
DataType=0x0007
AccessType=ro
[1003Name]
NrOfEntries=1
2=Second
[1014]
ParameterName=COB-ID EMCY
DataType=0x0007
AccessType=rw
DefaultValue=$NODEID+0x80
LowLimit=0x80
HighLimit=0x7FF
[ManufacturerObjects]
SupportedObjects=1
1=0x2000
[2000]
ParameterName=Name
DataType=0x0009
AccessType=rw
DefaultValue=wheel
PDOMapping=0
)";

inline Eds EdsOf(const std::string& text) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
      ::fmemopen(const_cast<char*>(text.data()), text.size(), "r"), std::fclose);
  return ReadEds(file.get(), "x.eds");
}

// The first place where `from` stands is changed.
inline std::string Changed(const std::string& from, const std::string& to) {
  std::string text = kEds;
  const std::size_t at = text.find(from);
  if (at == std::string::npos) throw std::logic_error("not in the text: " + from);
  return text.replace(at, from.size(), to);
}

}  // namespace motorctl
