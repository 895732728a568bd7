// SPDX-License-Identifier: Apache-2.0
#include "emmc.hpp"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace karst::emu {
namespace {

bool create_sparse(const std::string &path, uint64_t size,
                   std::initializer_list<std::pair<uint64_t, std::string>> contents) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        return errno == EEXIST; // kept as it is: an earlier setup made it
    }
    bool ok = ::ftruncate(fd, static_cast<off_t>(size)) == 0;
    for (const auto &[offset, data] : contents) {
        ok = ok && ::pwrite(fd, data.data(), data.size(), static_cast<off_t>(offset)) ==
                       static_cast<ssize_t>(data.size());
    }
    ::close(fd);
    return ok;
}

} // namespace

std::string mmc_device_path(const std::string &root) {
    return root + "/dev/mmcblk0";
}
std::string mmc_partition_path(const std::string &root) {
    return root + "/dev/mmcblk0p2";
}

std::string factory_header(uint32_t type, const char *what) {
    // Table version 0x5300 and the type as board ID, big-endian, then a readable label.
    std::string h = {'\x53', '\x00', '\x00', static_cast<char>(type)};
    h += "karst emulator ";
    h += what;
    h += " image";
    h.push_back('\0');
    return h;
}

bool create_emmc(const std::string &root) {
    return create_sparse(mmc_device_path(root), MMC_DEVICE_SIZE,
                         {{BMC_REGION1_OFFSET, factory_header(0, "factory BMC")}}) &&
           create_sparse(mmc_partition_path(root), MMC_PARTITION_SIZE,
                         {{GOLDEN_BMC_OFFSET, factory_header(0, "golden BMC")},
                          {GOLDEN_BIOS_OFFSET, factory_header(1, "golden BIOS")},
                          {GOLDEN_CPLD_OFFSET, factory_header(2, "golden CPLD")}});
}

} // namespace karst::emu
