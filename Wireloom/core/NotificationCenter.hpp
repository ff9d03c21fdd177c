#pragma once
// NotificationCenter: broadcasts named events to whoever observes them, so
// the parts of the library (capture, flow tables, analysers) and the host can
// react to each other without knowing each other. An observer is any address
// that identifies the party (usually `this`); it registers a callback for a
// name, optionally only for the notifications of one sender:
//
//   auto& center = NotificationCenter::defaultCenter();
//   center.addObserver(this, "FlowDidEnd", [this](const Notification& n) {
//       if (auto flow = n.sender) finished(flow);
//   });
//   center.postNotification("FlowDidEnd", flow, {{"reason", "Timeout"}});
//   center.removeObserver(this);   // before `this` goes away
//
// Delivery is synchronous, on the posting thread, in registration order.
// Callbacks may add and remove observers, their own registration included:
// a registration removed during a delivery is not called later in it, and
// one added during a delivery first hears the next post. Registration is
// thread-safe; no lock is held while a callback runs, so a registration
// removed on another thread may still see a call that had already begun.

#include <Wireloom/core/Object.hpp>
#include <Wireloom/core/Value.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace wireloom {

struct Notification {
    std::string name;
    std::shared_ptr<Object> sender;  // may be null
    UserInfo userInfo;
};

class NotificationCenter {
public:
    using Callback = std::function<void(const Notification&)>;

    // The process-wide center. It is never destroyed, so posting during exit
    // is safe.
    static NotificationCenter& defaultCenter();

    NotificationCenter();
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // Calls `callback` for each notification named `name`; with a sender,
    // only for notifications whose sender is that very object (compared by
    // address). Registering twice means being called twice.
    void addObserver(const void* observer, std::string name, Callback callback, const Object* sender = nullptr);
    // Every registration of the observer, or those for one name.
    void removeObserver(const void* observer);
    void removeObserver(const void* observer, std::string_view name);

    // A post nobody observes costs a lookup and allocates nothing: the
    // notification is only built when someone will receive it.
    void postNotification(std::string_view name, std::shared_ptr<Object> sender, UserInfo userInfo = {});
    void postNotification(const Notification& notification);

    // Registrations for the name. Lets a poster skip building an expensive
    // user info nobody would read.
    std::size_t observerCount(std::string_view name) const;
    // Changes whenever an observer is added or removed, so that a poster
    // may remember observerCount() answers until it moves.
    std::uint64_t registrationRevision() const noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Whether a name has observers, asked of the center again only when its
// registrations change. A poster of thousands of notifications a second
// keeps one per name and builds a user info only when someone will read it:
//
//   if (chunkProbe_.isObserved()) center.postNotification(kName, self, {{"chunk", bytes}});
class ObserverProbe {
public:
    explicit ObserverProbe(std::string_view name, NotificationCenter& center = NotificationCenter::defaultCenter())
        : name_(name), center_(&center) {}
    bool isObserved() {
        const std::uint64_t revision = center_->registrationRevision();
        if (revision != revision_) {
            observed_ = center_->observerCount(name_) > 0;
            revision_ = revision;
        }
        return observed_;
    }
    std::string_view name() const noexcept { return name_; }

private:
    std::string_view name_;  // a constant's text, never a temporary
    NotificationCenter* center_;
    std::uint64_t revision_ = ~std::uint64_t{0};
    bool observed_ = false;
};

}  // namespace wireloom
