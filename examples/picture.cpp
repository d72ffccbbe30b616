#include "picture.h"

#include <leptonica/allheaders.h>
#include <libexif/exif-data.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace text_reader {

namespace {

// A4 at 600 dots per inch. A small file can claim any size, and decoding allocates all its pixels.
constexpr std::int64_t MAX_PIXELS = 35'000'000;

// The resolution of pictures that name none. Tesseract guesses badly and logs each guess.
constexpr int USUAL_DOTS_PER_INCH = 300;

const unsigned char* Bytes(const std::string& picture) {
    return reinterpret_cast<const unsigned char*>(picture.data());
}

void RequirePngOrJpeg(const std::string& picture) {
    constexpr std::size_t MAGIC_LENGTH = 12;
    int format = IFF_UNKNOWN;
    const bool known = picture.size() >= MAGIC_LENGTH && findFileFormatBuffer(Bytes(picture), &format) == 0;
    if (!known || (format != IFF_PNG && format != IFF_JFIF_JPEG)) {
        throw std::runtime_error("this is no picture that can be read: send a PNG or a JPEG file");
    }
}

// Checked before anything is decoded.
void RequireSaneSize(const std::string& picture) {
    int width = 0;
    int height = 0;
    if (pixReadHeaderMem(Bytes(picture), picture.size(), nullptr, &width, &height, nullptr, nullptr,
                         nullptr) != 0) {
        throw std::runtime_error("the picture is damaged: its head cannot be read");
    }
    if (std::int64_t{width} * height > MAX_PIXELS) {
        throw std::runtime_error("the picture has " + std::to_string(width) + " x " + std::to_string(height) +
                                 " pixels: scale it down to " + std::to_string(MAX_PIXELS) + " or fewer");
    }
}

struct ExifDestroyer {
    void operator()(ExifData* data) const { exif_data_unref(data); }
};

// Cameras store the pixels as the sensor has them, and in EXIF how to turn them: 1 to 8, 1 is upright.
unsigned Orientation(const std::string& picture) {
    constexpr unsigned UPRIGHT = 1;
    const std::unique_ptr<ExifData, ExifDestroyer> exif(
        exif_data_new_from_data(Bytes(picture), static_cast<unsigned>(picture.size())));
    if (exif == nullptr) {
        return UPRIGHT;
    }
    const ExifEntry* const entry = exif_content_get_entry(exif->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION);
    const bool isShort = entry != nullptr && entry->format == EXIF_FORMAT_SHORT && entry->components == 1 &&
                         entry->data != nullptr && entry->size >= sizeof(ExifShort);
    return isShort ? exif_get_short(entry->data, exif_data_get_byte_order(exif.get())) : UPRIGHT;
}

PixOwner TurnUpright(PixOwner pix, unsigned orientation) {
    struct Turn {
        int quartersClockwise;
        bool mirrored;  // left to right, afterwards
    };
    constexpr std::array<Turn, 9> TURNS = {{{0, false},
                                            {0, false},
                                            {0, true},
                                            {2, false},
                                            {2, true},
                                            {1, true},
                                            {1, false},
                                            {3, true},
                                            {3, false}}};
    const Turn turn = orientation < TURNS.size() ? TURNS[orientation] : TURNS[0];
    if (turn.quartersClockwise != 0) {
        pix.reset(pixRotateOrth(pix.get(), turn.quartersClockwise));
    }
    if (turn.mirrored && pix != nullptr) {
        pix.reset(pixFlipLR(nullptr, pix.get()));
    }
    return pix;
}

}  // namespace

void PixDestroyer::operator()(Pix* pix) const { pixDestroy(&pix); }

PixOwner DecodePicture(const std::string& picture) {
    setMsgSeverity(L_SEVERITY_NONE);  // the sender is told what is wrong with a picture
    RequirePngOrJpeg(picture);
    RequireSaneSize(picture);
    PixOwner pix(pixReadMem(Bytes(picture), picture.size()));
    if (pix == nullptr) {
        throw std::runtime_error("the picture is damaged: it cannot be decoded");
    }
    pix = TurnUpright(std::move(pix), Orientation(picture));
    if (pix == nullptr) {
        throw std::runtime_error("the picture cannot be turned upright: no memory");
    }
    if (pixGetXRes(pix.get()) <= 0) {
        pixSetResolution(pix.get(), USUAL_DOTS_PER_INCH, USUAL_DOTS_PER_INCH);
    }
    return pix;
}

}  // namespace text_reader
