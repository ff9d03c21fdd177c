#pragma once
// Object: the common base of the library's reference-counted model objects
// (packets, flows, analysers, captures). It gives every object an identity
// that notifications can carry as their sender, a class name, and the
// generic object description "<ClassName: 0xADDRESS>" that many
// descriptions end with. Objects are always owned by std::shared_ptr.

#include <memory>
#include <string>

namespace wireloom {

class Object : public std::enable_shared_from_this<Object> {
public:
    virtual ~Object() = default;

    // The class name without namespace, e.g. "PXTCPFlow".
    virtual std::string className() const;
    // A one-line debug text; by default the generic object description.
    virtual std::string description() const { return genericDescription(); }
    // "<ClassName: 0x7f...>" with the object's address in lower-case hex.
    std::string genericDescription() const;
    // The same, appended to `out`.
    void appendGenericDescription(std::string& out) const;
    // className() appended to `out`; classes that know it without building
    // a string say so.
    virtual void appendClassName(std::string& out) const { out += className(); }

protected:
    Object() = default;
    Object(const Object&) = default;
    Object& operator=(const Object&) = default;
};

using ObjectPtr = std::shared_ptr<Object>;

}  // namespace wireloom
