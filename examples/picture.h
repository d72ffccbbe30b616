// Decodes PNG and JPEG pictures that strangers send.
#pragma once

#include <memory>
#include <string>

struct Pix;

namespace text_reader {

struct PixDestroyer {
    void operator()(Pix* pix) const;
};
using PixOwner = std::unique_ptr<Pix, PixDestroyer>;

// The picture, upright: turned as the camera says in its EXIF data. Failures are std::runtime_error with a
// text that can be shown.
PixOwner DecodePicture(const std::string& picture);

}  // namespace text_reader
