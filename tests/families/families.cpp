// The registry of family rows, gathered from the subsystems' family files.
#include "families.h"

namespace omkt {

const std::vector<Family>& families() {
    static const std::vector<Family> all = [] {
        std::vector<Family> out;
        for (auto rows : {elementwiseFamilies, productFamilies, solverFamilies, eigenFamilies, graphicsFamilies})
            for (Family& f : rows()) out.push_back(std::move(f));
        return out;
    }();
    return all;
}

const Family* familyOf(const Name& n) {
    for (const Family& f : families())
        if (f.has(n)) return &f;
    return nullptr;
}

std::map<std::string, int>& witnesses() {
    static std::map<std::string, int> w;
    return w;
}

}  // namespace omkt
