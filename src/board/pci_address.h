// Where a board sits on the PCI bus, as the kernel tells it: the driver's
// control node is a character device, and sysfs links that device to the PCI
// function behind it. Farm tools match boards to slots by this address.
#pragma once

#include <string>

// The PCI address ("0000:03:00.0") of the board at `devicePath` (the
// `<dir>/xdma<N>` of BRYLDMAGetDevices), read through sysfs mounted at
// `sysfs`. Empty when the control node is no character device or sysfs names
// no PCI function for it, as for simulated boards.
std::string BRYLDMAPciAddress(const std::string &devicePath, const std::string &sysfs = "/sys");
