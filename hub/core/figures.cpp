#include "hub/core/figures.h"

#include <utility>

namespace lumora_hub {

void FigureBoard::Put(const std::string& owner, std::vector<Figure> figures) {
    const lumora::MutexLock lock(mMutex);
    mFigures[owner] = std::move(figures);
}

std::vector<Figure> FigureBoard::All() const {
    std::vector<Figure> all;
    const lumora::MutexLock lock(mMutex);
    for (const auto& [owner, figures] : mFigures) {
        all.insert(all.end(), figures.begin(), figures.end());
    }
    return all;
}

}  // namespace lumora_hub
