// What loading costs a C++ library that brings nothing of its own.

#include <string>

std::string* grgNothing();
std::string* grgNothing() { return nullptr; }
