// Stores a picture as a camera does that was held otherwise: turned_page PICTURE TURNED.jpg ORIENTATION. The
// pixels are placed by the definition of the EXIF tag, which names the visual sides of the first row and the
// first column.
#include <leptonica/allheaders.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

namespace {

struct PixDestroyer {
    void operator()(Pix* pix) const { pixDestroy(&pix); }
};
using PixOwner = std::unique_ptr<Pix, PixDestroyer>;

// Of 1 to 8: the first row is the visual side named first, the first column the one named behind it.
const char* const SIDES[] = {"",         "top left",  "top right",    "bottom right", "bottom left",
                             "left top", "right top", "right bottom", "left bottom"};

PixOwner Store(Pix* upright, const std::string& sides) {
    const int width = pixGetWidth(upright);
    const int height = pixGetHeight(upright);
    const bool onItsSide = sides[0] == 'l' || sides[0] == 'r';
    const bool fromRight = sides.find("right") != std::string::npos;
    const bool fromBottom = sides.find("bottom") != std::string::npos;
    PixOwner stored(pixCreate(onItsSide ? height : width, onItsSide ? width : height, 8));
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            l_uint32 value = 0;
            pixGetPixel(upright, x, y, &value);
            const int across = fromRight ? width - 1 - x : x;
            const int down = fromBottom ? height - 1 - y : y;
            pixSetPixel(stored.get(), onItsSide ? down : across, onItsSide ? across : down, value);
        }
    }
    return stored;
}

// One entry, the orientation, in big-endian TIFF.
std::string ExifSegment(int orientation) {
    const std::string tiff = std::string("MM\0*\0\0\0\x08\0\x01\x01\x12\0\x03\0\0\0\x01\0", 19) +
                             static_cast<char>(orientation) + std::string(6, '\0');
    const std::string content = std::string("Exif\0\0", 6) + tiff;
    return std::string("\xff\xe1\0", 3) + static_cast<char>(content.size() + 2) + content;
}

}  // namespace

int main(int count, char** arguments) {
    const int orientation = count == 4 ? std::atoi(arguments[3]) : 0;
    if (orientation < 1 || orientation > 8) {
        return 2;
    }
    constexpr std::size_t START_MARKER = 2;
    const PixOwner upright(pixRead(arguments[1]));
    const PixOwner stored = Store(upright.get(), SIDES[orientation]);
    l_uint8* bytes = nullptr;
    std::size_t size = 0;
    if (pixWriteMemJpeg(&bytes, &size, stored.get(), 90, 0) != 0) {
        return 1;
    }
    const std::string jpeg(reinterpret_cast<char*>(bytes), size);
    lept_free(bytes);
    std::ofstream file(arguments[2], std::ios::binary);
    file << jpeg.substr(0, START_MARKER) << ExifSegment(orientation) << jpeg.substr(START_MARKER);
    return file.flush() ? 0 : 1;
}
