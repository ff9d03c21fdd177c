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

    // A share of this object, which a shared_ptr must already own. These
    // hide enable_shared_from_this's own so that a class whose objects are
    // owned together with others (a decoded frame's layers) can hand out a
    // share that lets them go separately, however the object is reached.
    std::shared_ptr<Object> shared_from_this() { return shareOfSelf(); }
    std::shared_ptr<const Object> shared_from_this() const { return const_cast<Object*>(this)->shareOfSelf(); }
    std::weak_ptr<Object> weak_from_this() noexcept { return weakOfSelf(); }
    std::weak_ptr<const Object> weak_from_this() const noexcept { return const_cast<Object*>(this)->weakOfSelf(); }

protected:
    Object() = default;
    Object(const Object&) = default;
    Object& operator=(const Object&) = default;

    virtual std::shared_ptr<Object> shareOfSelf() { return ownedShare(); }
    virtual std::weak_ptr<Object> weakOfSelf() noexcept { return enable_shared_from_this::weak_from_this(); }
    // The share of whatever control block owns this object, as shared_ptr
    // recorded it.
    std::shared_ptr<Object> ownedShare() { return enable_shared_from_this::shared_from_this(); }
};

using ObjectPtr = std::shared_ptr<Object>;

}  // namespace wireloom
