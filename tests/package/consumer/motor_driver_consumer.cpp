// A host outside the tree: includes every public header and uses the library as installed.
#include <driver_can.h>
#include <driver_common.h>
#include <zl_driver.h>

#include <cstdio>

int main() {
  ZlDriver drive("no-such-can");
  DriverCommon& interface = drive;
  std::printf("counts per revolution %u, CAN error set: %s\n",
              interface.GetNumberOfPulsesPerRevolution(), drive.GetCanError() != 0 ? "yes" : "no");
  return 0;
}
