// What the surroundings can do to the process: signals, limits, descriptors.
#include "hostile/measure.hpp"

namespace spotserver::hostile {

std::vector<Subject> processSubjects() { return {}; }

}  // namespace spotserver::hostile
