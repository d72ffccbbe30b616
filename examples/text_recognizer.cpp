#include "text_recognizer.h"

#include <leptonica/allheaders.h>
#include <tesseract/baseapi.h>
#include <tesseract/ocrclass.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace text_reader {

namespace {

// A4 at 600 dots per inch. A small file can claim any size, and its pixels all have to be held.
constexpr std::int64_t MAX_PIXELS = 35'000'000;

// For pictures that do not say how fine they are; Tesseract guesses badly and says so each time.
constexpr int USUAL_DOTS_PER_INCH = 300;

struct PixDestroyer {
    void operator()(Pix* pix) const { pixDestroy(&pix); }
};
using PixOwner = std::unique_ptr<Pix, PixDestroyer>;

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

// Before anything is decoded.
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

PixOwner Decode(const std::string& picture) {
    RequirePngOrJpeg(picture);
    RequireSaneSize(picture);
    PixOwner pix(pixReadMem(Bytes(picture), picture.size()));
    if (pix == nullptr) {
        throw std::runtime_error("the picture is damaged: it cannot be decoded");
    }
    if (pixGetXRes(pix.get()) <= 0) {
        pixSetResolution(pix.get(), USUAL_DOTS_PER_INCH, USUAL_DOTS_PER_INCH);
    }
    return pix;
}

bool IsCancelled(void* flag, int) { return *static_cast<std::atomic<bool>*>(flag); }

}  // namespace

TextRecognizer::TextRecognizer(const std::string& language, std::chrono::milliseconds limit)
    : mLimit(limit), mTesseract(Load(language)) {
    setMsgSeverity(L_SEVERITY_NONE);  // what is wrong with a picture goes to who sent it
}

TextRecognizer::~TextRecognizer() = default;

std::unique_ptr<tesseract::TessBaseAPI> TextRecognizer::Load(const std::string& language) {
    auto tesseract = std::make_unique<tesseract::TessBaseAPI>();
    if (tesseract->Init(nullptr, language.c_str(), tesseract::OEM_LSTM_ONLY) != 0) {
        throw std::runtime_error("Tesseract cannot load \"" + language +
                                 "\": install the package tesseract-ocr-" + language);
    }
    tesseract->SetVariable("debug_file", "/dev/null");
    return tesseract;
}

std::vector<std::string> TextRecognizer::InstalledLanguages() const {
    std::vector<std::string> names;
    mTesseract->GetAvailableLanguagesAsVector(&names);
    // This one is listed, but finds the orientation of a page only.
    names.erase(std::remove(names.begin(), names.end(), "osd"), names.end());
    return names;
}

// A language becomes part of a file's name: nothing but what is there may come from outside.
void TextRecognizer::RequireInstalled(const std::string& language) const {
    const std::vector<std::string> installed = InstalledLanguages();
    std::istringstream parts(language + "+");
    for (std::string part; std::getline(parts, part, '+');) {
        if (std::find(installed.begin(), installed.end(), part) != installed.end()) {
            continue;
        }
        std::string message = "the language \"" + part + "\" is not installed on this device; there are:";
        for (const std::string& name : installed) {
            message += " " + name;
        }
        throw std::runtime_error(message);
    }
}

void TextRecognizer::SetLanguage(const std::string& language) {
    RequireInstalled(language);
    mTesseract = Load(language);
}

void TextRecognizer::RequireGoingOn() const {
    if (mCancelled) {
        throw std::runtime_error("the device is going away");
    }
}

std::string TextRecognizer::Read(const std::string& picture) {
    RequireGoingOn();
    const PixOwner pix = Decode(picture);
    tesseract::ETEXT_DESC monitor;
    monitor.cancel = IsCancelled;
    monitor.cancel_this = &mCancelled;
    monitor.set_deadline_msecs(static_cast<std::int32_t>(mLimit.count()));
    mTesseract->SetImage(pix.get());
    const int result = mTesseract->Recognize(&monitor);
    const std::unique_ptr<char[]> text(result == 0 ? mTesseract->GetUTF8Text() : nullptr);
    mTesseract->Clear();
    if (text != nullptr) {
        return text.get();
    }
    RequireGoingOn();
    if (monitor.deadline_exceeded()) {
        throw std::runtime_error("the picture takes too long to read: send a smaller part of it");
    }
    throw std::runtime_error("Tesseract cannot read this picture");
}

}  // namespace text_reader
