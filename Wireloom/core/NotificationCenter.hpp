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
#include <vector>

namespace wireloom {

struct Notification {
    // The center's own copy of the name, or the poster's for a notification
    // posted whole: valid while the center lives (the default center always).
    std::string_view name;
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

    // One name's registrations at some revision; opaque outside the center.
    struct Registrations;

private:
    friend class ObserverProbe;
    std::shared_ptr<const Registrations> registrationsFor(std::string_view name) const;

    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Whether a name has observers, asked of the center again only when its
// registrations change, and the registrations to deliver to. A poster of
// thousands of notifications a second keeps one per name (and per thread:
// a probe is not thread-safe), builds the notification only when someone
// will read it, and posts it without a look-up or lock:
//
//   if (chunkProbe_.isObserved())
//       chunkProbe_.post(Notification{chunkProbe_.name(), self, {{"chunk", bytes}}});
//
// Delivery is as postNotification's; a probe must outlive its posts.
class ObserverProbe {
public:
    explicit ObserverProbe(std::string_view name, NotificationCenter& center = NotificationCenter::defaultCenter());
    ~ObserverProbe();
    ObserverProbe(const ObserverProbe&) = delete;
    ObserverProbe& operator=(const ObserverProbe&) = delete;

    bool isObserved() {
        const std::uint64_t revision = center_->registrationRevision();
        if (revision != revision_) refresh(revision);
        return registrations_ != nullptr;
    }
    std::string_view name() const noexcept { return name_; }
    // To the registrations isObserved() last found; it must have answered
    // true. The notification's name is not looked at.
    void post(const Notification& notification);

private:
    void refresh(std::uint64_t revision);

    std::string_view name_;  // a constant's text, never a temporary
    NotificationCenter* center_;
    std::uint64_t revision_ = ~std::uint64_t{0};
    std::shared_ptr<const NotificationCenter::Registrations> registrations_;  // null when there are none
    // Lists replaced while a post from this probe was delivering from them,
    // kept until it ends: a callback may change the registrations and post
    // again through the same probe.
    std::vector<std::shared_ptr<const NotificationCenter::Registrations>> retired_;
    unsigned delivering_ = 0;
};

}  // namespace wireloom
