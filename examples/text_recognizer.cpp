#include "text_recognizer.h"

#include <tesseract/baseapi.h>
#include <tesseract/ocrclass.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "picture.h"

namespace text_reader {

namespace {

bool IsCancelled(void* flag, int) { return *static_cast<std::atomic<bool>*>(flag); }

}  // namespace

TextRecognizer::TextRecognizer(const std::string& language, std::chrono::milliseconds limit)
    : mLimit(limit), mTesseract(Load(language)) {}

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
    // "osd" is listed, but finds only the orientation of a page.
    names.erase(std::remove(names.begin(), names.end(), "osd"), names.end());
    return names;
}

// A language becomes part of a file's name, and clients choose it, so only installed ones are accepted.
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
    const PixOwner pix = DecodePicture(picture);
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
