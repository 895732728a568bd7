// SPDX-License-Identifier: Apache-2.0
// Image bytes made addressable for the secure world: the caller's buffer as it is, or a private
// mapping of the slot's file, its eMMC region, a caller's file or the 32 MiB extended copy.
// Images are never read into heap memory; the mapping itself is what gets registered.
#pragma once

#include "core/mapping.hpp"

#include <cstdint>

namespace karst::images {

class MappedImage {
  public:
    MappedImage() = default;
    static MappedImage borrowed(void *buffer) {
        MappedImage image;
        image.borrowed_ = buffer;
        return image;
    }
    static MappedImage owned(Mapping mapping) {
        MappedImage image;
        image.mapping_ = std::move(mapping);
        return image;
    }

    // Null when the image could not be mapped.
    void *data() const { return borrowed_ != nullptr ? borrowed_ : mapping_.data(); }
    explicit operator bool() const { return data() != nullptr; }

  private:
    void *borrowed_ = nullptr; // the caller's buffer: never unmapped
    Mapping mapping_;          // the library's mapping: unmapped when the image goes
};

// Length of the extended copy of a slot's file (paths::EXTENDED_BUFFER).
constexpr uint32_t EXTENDED_SIZE = 0x2000000;

// Maps the image of img_id from the source in img_flags bits 2..0. size is in/out: the length
// wanted (0 for the slot's default) and, on success, the length mapped. arg is the caller's
// buffer (IMG_SRC_BUFFER) or a path (IMG_SRC_FILE). Returns an empty image on any failure.
MappedImage pta_mmap_img(uint32_t img_id, uint32_t img_flags, void *arg, uint32_t *size);

} // namespace karst::images
