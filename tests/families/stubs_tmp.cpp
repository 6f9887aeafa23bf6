#include "families.h"
namespace omkt {
std::vector<Family> productFamilies() { return {}; }
std::vector<Family> solverFamilies() { return {}; }
std::vector<Family> eigenFamilies() { return {}; }
std::vector<Family> graphicsFamilies() { return {}; }
}
