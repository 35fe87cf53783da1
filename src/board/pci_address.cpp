#include "board/pci_address.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cctype>
#include <filesystem>
#include <system_error>

namespace {

// "DDDD:BB:SS.F" in hex digits, the function a digit from 0 to 7.
bool IsPciAddress(const std::string &text) {
  const std::string shape = "xxxx:xx:xx.x";
  if (text.size() != shape.size()) return false;
  for (size_t i = 0; i < shape.size(); i++) {
    if (shape[i] == 'x' ? !std::isxdigit(static_cast<unsigned char>(text[i])) : text[i] != shape[i]) return false;
  }
  return text.back() >= '0' && text.back() <= '7';
}

}  // namespace

std::string BRYLDMAPciAddress(const std::string &devicePath, const std::string &sysfs) {
  struct stat node {};
  if (stat((devicePath + "_control").c_str(), &node) != 0 || !S_ISCHR(node.st_mode)) return "";
  std::string link = sysfs + "/dev/char/" + std::to_string(major(node.st_rdev)) + ":" +
                     std::to_string(minor(node.st_rdev)) + "/device";
  std::error_code error;
  std::string function = std::filesystem::read_symlink(link, error).filename().string();
  return !error && IsPciAddress(function) ? function : "";
}
