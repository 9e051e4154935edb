#include "sdo_observer.h"

#include <utility>

namespace motor_driver {
namespace {

thread_local SdoObserver* t_observer = nullptr;

}  // namespace

SdoObserver* SetSdoObserver(SdoObserver* observer) { return std::exchange(t_observer, observer); }

SdoObserver* CurrentSdoObserver() { return t_observer; }

}  // namespace motor_driver
