// SPDX-License-Identifier: Apache-2.0
// Devices and stored copies of the image model (image_model.hpp).
#include "image_model.hpp"

#include "../emmc.hpp"
#include "../state_dir.hpp"
#include "byte_order.hpp"
#include "karst.h"
#include "karst_emu.h"
#include "kv_store.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

namespace karst::emu {
namespace {

constexpr uint64_t MIB = uint64_t{1024} * 1024;
constexpr uint64_t DEFAULT_PROGRAM_RATE = 32 * MIB; // a 64 MiB image programs in two seconds
constexpr uint8_t ERASED = 0xFF;
constexpr mode_t DEVICE_FILE_MODE = 0644;
// Programming goes in about this many chunks, each at least MIN_CHUNK bytes.
constexpr size_t PROGRAM_STEPS = 50;
constexpr size_t MIN_CHUNK = size_t{64} * 1024;
constexpr uint64_t MICROSECONDS_PER_SECOND = 1000000;

// Flash sizes of the smaller devices.
constexpr uint64_t CPLD_FLASH_SIZE = 0x40000;
constexpr uint64_t SCMFPGA_FLASH_SIZE = 0xA8000;
constexpr uint64_t PDBFPGA_FLASH_SIZE = 0x24000;

constexpr std::array<DeviceInfo, IMG_TYPE_COUNT> DEVICES = [] {
    std::array<DeviceInfo, IMG_TYPE_COUNT> d{};
    d[IMG_TYPE_BMC] = {"BMC", 64 * MIB, nullptr};
    d[IMG_TYPE_BIOS] = {"BIOS", 64 * MIB, "BIOS"};
    d[IMG_TYPE_CPLD] = {"CPLD", CPLD_FLASH_SIZE, "CPLD"};
    d[IMG_TYPE_BPNCPLD] = {"BPNCPLD", CPLD_FLASH_SIZE, nullptr};
    d[IMG_TYPE_NVFPGA] = {"NVFPGA", 16 * MIB, "NVFPGA"};
    d[IMG_TYPE_NVBIOS] = {"NVBIOS", 32 * MIB, "NVC1BIOS"};
    d[IMG_TYPE_SCMFPGA] = {"SCMFPGA", SCMFPGA_FLASH_SIZE, nullptr};
    d[IMG_TYPE_PDBFPGA] = {"PDBFPGA", PDBFPGA_FLASH_SIZE, nullptr};
    d[IMG_TYPE_EROTMCU] = {"EROTMCU", CPLD_FLASH_SIZE, "NUVEROTMCU"};
    return d;
}();

std::atomic<uint64_t> g_rate{0};
std::atomic<bool> g_rate_set{false};

std::string images_dir() {
    const std::string dir = state_dir();
    if (dir.empty() || !make_dirs(dir + "/images")) {
        return {};
    }
    return dir + "/images";
}

std::string device_path(uint32_t type) {
    const std::string dir = images_dir();
    return dir.empty() ? dir : dir + "/device-" + std::to_string(type) + ".bin";
}

// Reads or writes (transfer: pread or pwrite) bytes at offset until all are done, the file ends
// or an error stops it; returns the count done.
template <typename Byte, typename Transfer>
size_t transfer_at(int fd, std::span<Byte> bytes, uint64_t offset, Transfer transfer) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = transfer(fd, bytes.data() + done, bytes.size() - done,
                                   static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    return done;
}

// Reads up to out.size() bytes at offset; returns the count read (short at the file's end).
size_t read_at(int fd, std::span<uint8_t> out, uint64_t offset) {
    return transfer_at(fd, out, offset, ::pread);
}

bool write_at(int fd, std::span<const uint8_t> data, uint64_t offset) {
    return transfer_at(fd, data, offset, ::pwrite) == data.size();
}

// Where byte pos of the BMC image lives in the eMMC device.
uint64_t bmc_offset(uint64_t pos) {
    return pos < BMC_REGION1_SIZE ? BMC_REGION1_OFFSET + pos
                                  : BMC_REGION2_OFFSET + (pos - BMC_REGION1_SIZE);
}

// The BMC's flash: the two eMMC regions. Erased eMMC reads zero.
size_t read_bmc(std::span<uint8_t> out) {
    const int fd = ::open(mmc_device_path(run_root()).c_str(), O_RDONLY | O_CLOEXEC);
    std::memset(out.data(), 0, out.size());
    if (fd < 0) {
        return out.size();
    }
    const size_t first = std::min<size_t>(out.size(), BMC_REGION1_SIZE);
    read_at(fd, out.first(first), BMC_REGION1_OFFSET);
    read_at(fd, out.subspan(first), BMC_REGION2_OFFSET);
    ::close(fd);
    return out.size();
}

// The file a device is programmed in: the eMMC device for the BMC, else the device's own file,
// emptied. -1 when it cannot be opened.
int open_for_programming(uint32_t type) {
    const bool bmc = type == IMG_TYPE_BMC;
    const std::string path = bmc ? mmc_device_path(run_root()) : device_path(type);
    if (path.empty()) {
        return -1;
    }
    return ::open(path.c_str(), bmc ? O_RDWR | O_CLOEXEC : O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC,
                  DEVICE_FILE_MODE);
}

// Writes the chunk of the image that starts at byte pos. A chunk of the BMC's image may
// straddle the two regions.
bool write_chunk(int fd, bool bmc, std::span<const uint8_t> chunk, uint64_t pos) {
    if (!bmc) {
        return write_at(fd, chunk, pos);
    }
    const size_t in_first =
        pos < BMC_REGION1_SIZE ? std::min<size_t>(chunk.size(), BMC_REGION1_SIZE - pos) : 0;
    return write_at(fd, chunk.first(in_first), bmc_offset(pos)) &&
           write_at(fd, chunk.subspan(in_first), bmc_offset(pos + in_first));
}

// The BMC's flash from byte end on is erased: zeros, as holes.
void erase_bmc_after(int fd, uint64_t end) {
    const uint64_t bmc_size = BMC_REGION1_SIZE + BMC_REGION2_SIZE;
    for (uint64_t pos = end; pos < bmc_size;) {
        const uint64_t region_end = pos < BMC_REGION1_SIZE ? BMC_REGION1_SIZE : bmc_size;
        ::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                    static_cast<off_t>(bmc_offset(pos)), static_cast<off_t>(region_end - pos));
        pos = region_end;
    }
}

// Waits as long as programming n bytes takes at rate bytes per second (0: not at all).
void pace(size_t n, uint64_t rate) {
    if (rate != 0) {
        std::this_thread::sleep_for(
            std::chrono::microseconds(uint64_t{n} * MICROSECONDS_PER_SECOND / rate));
    }
}

} // namespace

const DeviceInfo *device_info(uint32_t type) {
    if (type >= DEVICES.size() || DEVICES[type].name == nullptr) {
        return nullptr;
    }
    return &DEVICES[type];
}

bool image_authentic(std::span<const uint8_t> image) {
    return image.size() >= sizeof(uint32_t) && load_be32(image.data()) >> 16 == SIGTBL_VERSION;
}

size_t read_device(uint32_t type, std::span<uint8_t> out) {
    const DeviceInfo *dev = device_info(type);
    if (dev == nullptr) {
        return 0;
    }
    out = out.first(std::min<uint64_t>(out.size(), dev->flash_size));
    if (type == IMG_TYPE_BMC) {
        return read_bmc(out);
    }
    const std::string path = device_path(type);
    const int fd = path.empty() ? -1 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    size_t programmed = 0;
    if (fd >= 0) {
        programmed = read_at(fd, out, 0);
        ::close(fd);
    } else {
        const std::string header =
            factory_header(type, (std::string("factory ") + dev->name).c_str());
        programmed = std::min(out.size(), header.size());
        std::memcpy(out.data(), header.data(), programmed);
    }
    std::memset(out.data() + programmed, ERASED, out.size() - programmed);
    return out.size();
}

bool program_device(uint32_t type, std::span<const uint8_t> image,
                    void (*written)(void *user, uint64_t done), void *user) {
    const DeviceInfo *dev = device_info(type);
    const int fd = dev == nullptr ? -1 : open_for_programming(type);
    if (fd < 0) {
        return false;
    }
    image = image.first(std::min<uint64_t>(image.size(), dev->flash_size));
    const bool bmc = type == IMG_TYPE_BMC;
    const uint64_t rate = program_rate();
    const size_t chunk = std::max(image.size() / PROGRAM_STEPS, MIN_CHUNK);
    bool ok = true;
    for (size_t done = 0; ok && done < image.size();) {
        const size_t n = std::min(chunk, image.size() - done);
        ok = write_chunk(fd, bmc, image.subspan(done, n), done);
        done += n;
        if (written != nullptr) {
            written(user, done);
        }
        pace(n, rate);
    }
    if (ok && bmc) {
        erase_bmc_after(fd, image.size());
    }
    ::close(fd);
    return ok;
}

namespace {

std::string copy_key(uint32_t img_id) {
    return std::to_string(image_type(img_id)) + "-" + std::to_string(image_slot(img_id));
}

} // namespace

uint64_t image_digest(std::span<const uint8_t> image) {
    // Four Fletcher-style lanes (a sum of the words, and a sum of those sums, which tells
    // their order) over little-endian 64-bit words: one pass at memory speed.
    constexpr size_t LANES = 4;
    constexpr size_t BLOCK = LANES * sizeof(uint64_t);
    constexpr uint64_t FNV_OFFSET_BASIS = 0xCBF29CE484222325;
    constexpr uint64_t FNV_PRIME = 0x100000001B3;
    uint64_t a[LANES] = {1, 2, 3, 4}, b[LANES] = {};
    const size_t whole = image.size() / BLOCK * BLOCK;
    auto block = [&](const uint8_t *p) {
        for (size_t lane = 0; lane < LANES; ++lane) {
            uint64_t word;
            std::memcpy(&word, p + lane * sizeof word, sizeof word);
            a[lane] += word;
            b[lane] += a[lane];
        }
    };
    for (size_t i = 0; i < whole; i += BLOCK) {
        block(image.data() + i);
    }
    uint8_t tail[BLOCK] = {};
    std::memcpy(tail, image.data() + whole, image.size() - whole);
    block(tail);
    uint64_t digest = FNV_OFFSET_BASIS ^ image.size();
    for (size_t lane = 0; lane < LANES; ++lane) {
        digest = (digest ^ a[lane]) * FNV_PRIME;
        digest = (digest ^ b[lane]) * FNV_PRIME;
    }
    return digest;
}

bool store_copy(uint32_t img_id, std::span<const uint8_t> image) {
    KvStore copies("image-copies");
    if (!copies.load()) {
        return false;
    }
    copies.set(copy_key(img_id),
               std::to_string(image.size()) + " " + std::to_string(image_digest(image)));
    return copies.save();
}

bool delete_copy(uint32_t img_id) {
    KvStore copies("image-copies");
    if (!copies.load()) {
        return false;
    }
    copies.erase(copy_key(img_id));
    return copies.save();
}

bool stored_copy(uint32_t img_id, uint64_t &size, uint64_t &digest) {
    KvStore copies("image-copies");
    if (!copies.load()) {
        return false;
    }
    const auto record = copies.get(copy_key(img_id));
    unsigned long long s = 0, d = 0;
    if (!record || std::sscanf(record->c_str(), "%llu %llu", &s, &d) != 2) {
        return false;
    }
    size = s;
    digest = d;
    return true;
}

uint64_t program_rate() {
    if (!g_rate_set.load()) {
        const char *text = std::getenv("KARST_EMU_PROGRAM_RATE");
        return text != nullptr ? std::strtoull(text, nullptr, 0) : DEFAULT_PROGRAM_RATE;
    }
    return g_rate.load();
}

void reset_program_rate() {
    g_rate_set.store(false);
}

} // namespace karst::emu

extern "C" void karst_emu_program_rate(uint64_t bytes_per_second) {
    karst::emu::g_rate.store(bytes_per_second);
    karst::emu::g_rate_set.store(true);
}

extern "C" int karst_emu_image_copy(uint32_t img_id, uint64_t *size, uint64_t *digest) {
    uint64_t s = 0, d = 0;
    if (!karst::emu::stored_copy(img_id, s, d)) {
        return -1;
    }
    if (size != nullptr) {
        *size = s;
    }
    if (digest != nullptr) {
        *digest = d;
    }
    return 0;
}

extern "C" uint64_t karst_emu_image_digest(const void *data, size_t size) {
    return karst::emu::image_digest({static_cast<const uint8_t *>(data), size});
}
