// Renders text to a PNG picture of a page, for a device to read: render_page PICTURE.png <TEXT
#include <leptonica/allheaders.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int FONT_SIZE = 12;  // points; Leptonica carries the font with it, made for 300 dots per inch
constexpr int DOTS_PER_INCH = 300;
constexpr int MARGIN = 100;
constexpr l_uint32 BLACK = 0;

struct PixDestroyer {
    void operator()(Pix* pix) const { pixDestroy(&pix); }
};
struct FontDestroyer {
    void operator()(L_Bmf* font) const { bmfDestroy(&font); }
};
using PixOwner = std::unique_ptr<Pix, PixDestroyer>;
using FontOwner = std::unique_ptr<L_Bmf, FontDestroyer>;

std::vector<std::string> ReadLines(std::istream& input) {
    std::vector<std::string> lines;
    for (std::string line; std::getline(input, line);) {
        lines.push_back(line);
    }
    return lines;
}

int WidthOf(const std::string& line, L_Bmf* font) {
    int width = 0;
    bmfGetStringWidth(font, line.c_str(), &width);
    return width;
}

PixOwner Render(const std::vector<std::string>& lines, L_Bmf* font) {
    int width = 1;
    for (const std::string& line : lines) {
        width = std::max(width, WidthOf(line, font));
    }
    const int lineHeight = font->lineheight + font->vertlinesep;
    const int height = lineHeight * static_cast<int>(lines.size());
    PixOwner page(pixCreate(width + 2 * MARGIN, height + 2 * MARGIN, 8));
    if (page == nullptr) {
        return page;
    }
    pixSetAll(page.get());
    pixSetResolution(page.get(), DOTS_PER_INCH, DOTS_PER_INCH);
    int baseline = MARGIN + font->baselinetab[int{'x'}];
    for (const std::string& line : lines) {
        if (!line.empty()) {
            pixSetTextline(page.get(), font, line.c_str(), BLACK, MARGIN, baseline, nullptr, nullptr);
        }
        baseline += lineHeight;
    }
    return page;
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 2 || arguments[1][0] == '-') {
        std::puts("Usage: render_page PICTURE.png <TEXT\nRenders lines of plain ASCII text to a picture.");
        return count == 2 && std::string(arguments[1]) == "--help" ? 0 : 2;
    }
    const FontOwner font(bmfCreate(nullptr, FONT_SIZE));
    const PixOwner page = font == nullptr ? nullptr : Render(ReadLines(std::cin), font.get());
    if (page == nullptr || pixWrite(arguments[1], page.get(), IFF_PNG) != 0) {
        std::fprintf(stderr, "render_page: cannot write %s\n", arguments[1]);
        return 1;
    }
    return 0;
}
