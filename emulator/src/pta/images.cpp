// Image commands: authenticate (0), upload (1), update (2), dump (3), delete (10) and
// authenticate with a key data block (31).
#include "application.hpp"
#include "image_model.hpp"
#include "progress_writer.hpp"

#include "../state_dir.hpp"

#include <cstring>
#include <memory>

namespace karst::emu {
namespace {

uint32_t type_of(uint32_t img_id) {
    return (img_id >> 8) & 0xFF;
}

// Value (image word, flags) and the image as input memory.
bool image_params(Params &params) {
    return params.are(Kind::value_in, Kind::mem_in) || params.are(Kind::value_in, Kind::mem_inout);
}

std::span<const uint8_t> image_of(Params &params, size_t index) {
    return {params[index].memory.data(), params[index].memory.size()};
}

// The firmware data block: magic "DBRT" at offset 4, the image word under "fw_img".
constexpr uint32_t DATABLK_MAGIC_FW = 0x54524244;
constexpr size_t DATABLK_HEADER = 16;

uint32_t le32(const uint8_t *p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}
uint32_t be32(const uint8_t *p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

uint32_t crc32(const uint8_t *data, size_t size) {
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320 & (0u - (crc & 1)));
        }
    }
    return ~crc;
}

// Checks the block's header and CRC and finds the 4-byte "fw_img" value. False for a block the
// application does not accept.
bool firmware_block_image(std::span<const uint8_t> blk, uint32_t &img_id) {
    if (blk.size() <= DATABLK_HEADER || le32(&blk[4]) != DATABLK_MAGIC_FW) {
        return false;
    }
    const uint32_t max_len = be32(&blk[12]);
    if (max_len != blk.size() - DATABLK_HEADER ||
        crc32(blk.data() + 4, max_len + 12) != le32(&blk[0])) {
        return false;
    }
    const std::span<const uint8_t> data = blk.subspan(DATABLK_HEADER);
    size_t pos = 0;
    while (pos + 2 <= data.size() && data[pos] != 0 && data[pos + 1] != 0) {
        const size_t name_len = data[pos + 1];
        const size_t value_hdr = pos + 2 + name_len;
        if (value_hdr + 2 > data.size() || data[value_hdr] == 0 || data[value_hdr + 1] == 0 ||
            data[value_hdr + 1] > 3 || value_hdr + 2 + data[value_hdr + 1] > data.size()) {
            return false;
        }
        const size_t n = data[value_hdr + 1];
        size_t value_len = 0;
        for (size_t i = 0; i < n; ++i) {
            value_len = value_len << 8 | data[value_hdr + 2 + i];
        }
        const size_t value = value_hdr + 2 + n;
        if (value_len > data.size() - value) {
            return false;
        }
        if (name_len == 6 && std::memcmp(data.data() + pos + 2, "fw_img", 6) == 0 &&
            value_len == 4) {
            img_id = le32(&data[value]);
            return true;
        }
        pos = value + value_len;
    }
    return false;
}

void progress_advance(void *writer, uint64_t done) {
    static_cast<ProgressWriter *>(writer)->advance(done);
}

} // namespace

TEEC_Result image_auth(Params &params) {
    if (!image_params(params)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    if (device_info(type_of(params[0].value.a)) == nullptr) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    return image_authentic(image_of(params, 1)) ? TEEC_SUCCESS : TEEC_ERROR_SECURITY;
}

TEEC_Result image_upload(Params &params) {
    if (!image_params(params)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const uint32_t img_id = params[0].value.a;
    if (device_info(type_of(img_id)) == nullptr || (img_id & 0xFF) > 14) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    return store_copy(img_id, image_of(params, 1)) ? TEEC_SUCCESS
                                                   : TEEC_ERROR_STORAGE_NOT_AVAILABLE;
}

TEEC_Result image_update(Params &params) {
    if (!image_params(params)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const uint32_t type = type_of(params[0].value.a);
    const DeviceInfo *dev = device_info(type);
    if (dev == nullptr) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    const std::span<const uint8_t> image = image_of(params, 1);
    if (!image_authentic(image)) {
        return TEEC_ERROR_SECURITY;
    }
    if (image.size() > dev->flash_size) {
        return TEEC_ERROR_EXCESS_DATA;
    }
    std::unique_ptr<ProgressWriter> progress;
    if (dev->progress != nullptr) {
        progress = std::make_unique<ProgressWriter>(
            run_root() + "/tmp/fw-update-" + dev->progress + ".out", image.size());
    }
    const bool ok =
        program_device(type, image, progress ? progress_advance : nullptr, progress.get());
    return ok ? TEEC_SUCCESS : TEEC_ERROR_STORAGE_NOT_AVAILABLE;
}

TEEC_Result image_dump(Params &params) {
    if (!params.are(Kind::value_in, Kind::mem_out) &&
        !params.are(Kind::value_in, Kind::mem_inout)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const uint32_t type = type_of(params[0].value.a);
    if (device_info(type) == nullptr) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    params[1].reported = read_device(type, params[1].memory);
    return TEEC_SUCCESS;
}

TEEC_Result image_delete(Params &params) {
    if (!params.are(Kind::value_in)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const uint32_t img_id = params[0].value.a;
    if (device_info(type_of(img_id)) == nullptr) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    return delete_copy(img_id) ? TEEC_SUCCESS : TEEC_ERROR_STORAGE_NOT_AVAILABLE;
}

TEEC_Result image_auth_dblk(Params &params) {
    if (!params.are(Kind::mem_in, Kind::mem_in)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    uint32_t img_id = 0;
    if (!firmware_block_image(image_of(params, 0), img_id)) {
        return TEEC_ERROR_BAD_FORMAT;
    }
    if (device_info(type_of(img_id)) == nullptr) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    return image_authentic(image_of(params, 1)) ? TEEC_SUCCESS : TEEC_ERROR_SECURITY;
}

} // namespace karst::emu
