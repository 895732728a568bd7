// SPDX-License-Identifier: Apache-2.0
// Image commands: authenticate (0), upload (1), update (2), dump (3), delete (10) and
// authenticate with a key data block (31).
#include "application.hpp"
#include "byte_order.hpp"
#include "datablk_reader.hpp"
#include "image_model.hpp"
#include "karst.h"
#include "progress_writer.hpp"

#include "../state_dir.hpp"

#include <memory>
#include <string_view>

namespace karst::emu {
namespace {

// Value (image word, flags) and the image as input memory.
bool image_params(Params &params) {
    return params.are(Kind::value_in, Kind::mem_in) || params.are(Kind::value_in, Kind::mem_inout);
}

std::span<const uint8_t> image_of(Params &params, size_t index) {
    return {params[index].memory.data(), params[index].memory.size()};
}

// The firmware data block (datablk_reader.hpp), the image word in its 4-byte "fw_img" value.
constexpr std::string_view IMAGE_WORD_NAME = "fw_img";
// The most bytes a value's length is given in.
constexpr size_t MAX_LENGTH_BYTES = 3;

// Finds the image word in the block's records. The walk stops at the first zero tag or length
// byte, and at the image word; what lies behind it is not looked at.
bool image_word_of(std::span<const uint8_t> data, uint32_t &img_id) {
    size_t pos = 0;
    while (pos + 2 <= data.size() && data[pos] != 0 && data[pos + 1] != 0) {
        const size_t name_len = data[pos + 1];
        const size_t value_hdr = pos + 2 + name_len;
        if (value_hdr + 2 > data.size() || data[value_hdr] == 0 || data[value_hdr + 1] == 0 ||
            data[value_hdr + 1] > MAX_LENGTH_BYTES ||
            value_hdr + 2 + data[value_hdr + 1] > data.size()) {
            return false;
        }
        const size_t n = data[value_hdr + 1];
        const size_t value_len = load_be(&data[value_hdr + 2], n);
        const size_t value = value_hdr + 2 + n;
        if (value_len > data.size() - value) {
            return false;
        }
        const std::string_view name(reinterpret_cast<const char *>(&data[pos + 2]), name_len);
        if (name == IMAGE_WORD_NAME && value_len == sizeof img_id) {
            img_id = load_le32(&data[value]);
            return true;
        }
        pos = value + value_len;
    }
    return false;
}

// Checks the block's header and CRC and finds its image word. False for a block the
// application does not accept.
bool firmware_block_image(std::span<const uint8_t> blk, uint32_t &img_id) {
    if (blk.size() <= datablk::HEADER_SIZE) {
        return false;
    }
    const datablk::Header header = datablk::header_of(blk);
    if (header.magic != datablk::MAGIC_FW ||
        header.data_length != blk.size() - datablk::HEADER_SIZE ||
        !datablk::crc_holds(blk, header)) {
        return false;
    }
    return image_word_of(blk.subspan(datablk::HEADER_SIZE), img_id);
}

void progress_advance(void *writer, uint64_t done) {
    static_cast<ProgressWriter *>(writer)->advance(done);
}

} // namespace

TEEC_Result image_auth(Params &params) {
    if (!image_params(params)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    if (device_info(image_type(params[0].value.a)) == nullptr) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    return image_authentic(image_of(params, 1)) ? TEEC_SUCCESS : TEEC_ERROR_SECURITY;
}

TEEC_Result image_upload(Params &params) {
    if (!image_params(params)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const uint32_t img_id = params[0].value.a;
    if (device_info(image_type(img_id)) == nullptr || image_slot(img_id) >= IMG_IDX_COUNT) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    return store_copy(img_id, image_of(params, 1)) ? TEEC_SUCCESS
                                                   : TEEC_ERROR_STORAGE_NOT_AVAILABLE;
}

TEEC_Result image_update(Params &params) {
    if (!image_params(params)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const uint32_t type = image_type(params[0].value.a);
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
    const uint32_t type = image_type(params[0].value.a);
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
    if (device_info(image_type(img_id)) == nullptr) {
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
    if (device_info(image_type(img_id)) == nullptr) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    return image_authentic(image_of(params, 1)) ? TEEC_SUCCESS : TEEC_ERROR_SECURITY;
}

} // namespace karst::emu
