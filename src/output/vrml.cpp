#include "output/vrml.hpp"

namespace torix {

void writevrml(const std::string&, int, int, int, int, const IntGrid&, const VecGrid&, const Array<double, 1>&, int,
               int) {}

void print_red_m(int, int, int, const IntGrid&, const VecGrid&, int, int, int, int, int, const std::string&) {}

}  // namespace torix
