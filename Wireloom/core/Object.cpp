#include <Wireloom/core/Object.hpp>
#include <Wireloom/core/detail/TextWriter.hpp>

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <typeinfo>

namespace wireloom {

std::string Object::className() const {
    const char* mangled = typeid(*this).name();
    int status = 0;
    char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::string name = status == 0 && demangled ? demangled : mangled;
    std::free(demangled);
    if (auto colon = name.rfind("::"); colon != std::string::npos) name.erase(0, colon + 2);
    return name;
}

std::string Object::genericDescription() const {
    std::string text;
    appendGenericDescription(text);
    return text;
}

void Object::appendGenericDescription(std::string& out) const {
    out += '<';
    appendClassName(out);
    detail::TextWriter(out) << ": " << detail::Pointer{this} << '>';
}

}  // namespace wireloom
