// Devices and stored copies of the image model (image_model.hpp).
#include "image_model.hpp"

#include "../emmc.hpp"
#include "../state_dir.hpp"
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

constexpr uint64_t MIB = 1024 * 1024;
constexpr uint64_t DEFAULT_PROGRAM_RATE = 32 * MIB; // a 64 MiB image programs in two seconds
constexpr uint8_t ERASED = 0xFF;

constexpr std::array<DeviceInfo, 24> devices = [] {
    std::array<DeviceInfo, 24> d{};
    d[0] = {"BMC", 64 * MIB, nullptr};
    d[1] = {"BIOS", 64 * MIB, "BIOS"};
    d[2] = {"CPLD", 0x40000, "CPLD"};
    d[3] = {"BPNCPLD", 0x40000, nullptr};
    d[9] = {"NVFPGA", 16 * MIB, "NVFPGA"};
    d[12] = {"NVBIOS", 32 * MIB, "NVC1BIOS"};
    d[21] = {"SCMFPGA", 0xA8000, nullptr};
    d[22] = {"PDBFPGA", 0x24000, nullptr};
    d[23] = {"EROTMCU", 0x40000, "NUVEROTMCU"};
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

// Reads up to out.size() bytes at offset; returns the count read (short at the file's end).
size_t read_at(int fd, std::span<uint8_t> out, uint64_t offset) {
    size_t done = 0;
    while (done < out.size()) {
        const ssize_t n =
            ::pread(fd, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
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

bool write_at(int fd, std::span<const uint8_t> data, uint64_t offset) {
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t n =
            ::pwrite(fd, data.data() + done, data.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
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

} // namespace

const DeviceInfo *device_info(uint32_t type) {
    if (type >= devices.size() || devices[type].name == nullptr) {
        return nullptr;
    }
    return &devices[type];
}

bool image_authentic(std::span<const uint8_t> image) {
    return image.size() >= 4 && image[0] == 0x53 && image[1] == 0x00;
}

size_t read_device(uint32_t type, std::span<uint8_t> out) {
    const DeviceInfo *dev = device_info(type);
    if (dev == nullptr) {
        return 0;
    }
    out = out.first(std::min<uint64_t>(out.size(), dev->flash_size));
    if (type == 0) {
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
    if (dev == nullptr) {
        return false;
    }
    image = image.first(std::min<uint64_t>(image.size(), dev->flash_size));
    const bool bmc = type == 0;
    const std::string path = bmc ? mmc_device_path(run_root()) : device_path(type);
    const int fd =
        path.empty()
            ? -1
            : ::open(path.c_str(),
                     bmc ? O_RDWR | O_CLOEXEC : O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    const uint64_t rate = program_rate();
    const size_t chunk = std::max<size_t>(image.size() / 50, 64 * 1024);
    bool ok = true;
    for (size_t done = 0; ok && done < image.size();) {
        const size_t n = std::min(chunk, image.size() - done);
        if (bmc) {
            // A chunk may straddle the two regions.
            const size_t in_first =
                done < BMC_REGION1_SIZE ? std::min<size_t>(n, BMC_REGION1_SIZE - done) : 0;
            ok = write_at(fd, image.subspan(done, in_first), bmc_offset(done)) &&
                 write_at(fd, image.subspan(done + in_first, n - in_first),
                          bmc_offset(done + in_first));
        } else {
            ok = write_at(fd, image.subspan(done, n), done);
        }
        done += n;
        if (written != nullptr) {
            written(user, done);
        }
        if (rate != 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(uint64_t{n} * 1000000 / rate));
        }
    }
    if (ok && bmc) {
        // The rest of the BMC's flash is erased: zeros, as holes.
        const uint64_t end = image.size();
        const uint64_t bmc_size = BMC_REGION1_SIZE + BMC_REGION2_SIZE;
        for (uint64_t pos = end; pos < bmc_size;) {
            const uint64_t region_end = pos < BMC_REGION1_SIZE ? BMC_REGION1_SIZE : bmc_size;
            ::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                        static_cast<off_t>(bmc_offset(pos)), static_cast<off_t>(region_end - pos));
            pos = region_end;
        }
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
    uint64_t a[4] = {1, 2, 3, 4}, b[4] = {};
    const size_t whole = image.size() / 32 * 32;
    auto block = [&](const uint8_t *p) {
        for (int lane = 0; lane < 4; ++lane) {
            uint64_t word;
            std::memcpy(&word, p + 8 * lane, 8);
            a[lane] += word;
            b[lane] += a[lane];
        }
    };
    for (size_t i = 0; i < whole; i += 32) {
        block(image.data() + i);
    }
    uint8_t tail[32] = {};
    std::memcpy(tail, image.data() + whole, image.size() - whole);
    block(tail);
    constexpr uint64_t PRIME = 0x100000001B3;
    uint64_t digest = 0xCBF29CE484222325 ^ image.size();
    for (int lane = 0; lane < 4; ++lane) {
        digest = (digest ^ a[lane]) * PRIME;
        digest = (digest ^ b[lane]) * PRIME;
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
