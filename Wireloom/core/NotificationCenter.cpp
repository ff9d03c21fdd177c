#include <Wireloom/core/Assert.hpp>
#include <Wireloom/core/NotificationCenter.hpp>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace wireloom {
namespace {

struct Registration {
    // A constructor rather than aggregate initialisation through make_shared,
    // which not every compiler the project builds with (clang 14) accepts.
    Registration(const void* observer, NotificationCenter::Callback callback)
        : observer(observer), callback(std::move(callback)) {}

    const void* observer;
    NotificationCenter::Callback callback;
    // Set under the center's mutex, read by deliveries that run without it.
    std::atomic<bool> removed{false};
};

struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const noexcept { return std::hash<std::string_view>{}(name); }
};

}  // namespace

// Posting is far more frequent than registering, so each name's list is
// immutable and replaced on change: a post takes the current list and
// delivers from it, unaffected by later changes except for the `removed`
// flags.
struct NotificationCenter::Registrations {
    // The sender beside the registration, so that a post skips those for
    // other senders (an analyser per flow, say) without reaching into each.
    struct Entry {
        const Object* sender;
        std::shared_ptr<Registration> registration;
    };
    std::string_view name;  // the key of the center's entry, which stays
    std::vector<Entry> items;
};

namespace {

using SharedList = std::shared_ptr<const NotificationCenter::Registrations>;

using Entry = NotificationCenter::Registrations::Entry;

bool wants(const Entry& entry, const Object* sender) {
    return (entry.sender == nullptr || entry.sender == sender) &&
           !entry.registration->removed.load(std::memory_order_acquire);
}

void deliver(const std::vector<Entry>& list, const Notification& notification) {
    for (const Entry& entry : list)
        if (wants(entry, notification.sender.get())) entry.registration->callback(notification);
}

}  // namespace

struct NotificationCenter::Impl {
    mutable std::mutex mutex;
    // An entry stays once made, empty (null) when its name has no
    // registrations left, so that notifications can name it by its key:
    // programs post a fixed handful of names.
    std::unordered_map<std::string, SharedList, NameHash, std::equal_to<>> lists;
    std::atomic<std::uint64_t> revision{0};

    SharedList listFor(std::string_view name) const {
        std::lock_guard lock(mutex);
        auto it = lists.find(name);
        return it == lists.end() ? nullptr : it->second;
    }

    // Replaces the entry's list by one without the observer's registrations,
    // or by none when it was the last. Caller holds the mutex.
    static void removeFrom(SharedList& list, const void* observer) {
        if (!list || std::none_of(list->items.begin(), list->items.end(),
                                  [&](const Entry& e) { return e.registration->observer == observer; }))
            return;
        auto kept = std::make_shared<Registrations>();
        kept->name = list->name;
        for (const Entry& entry : list->items) {
            if (entry.registration->observer == observer)
                entry.registration->removed = true;
            else
                kept->items.push_back(entry);
        }
        if (kept->items.empty())
            list.reset();
        else
            list = std::move(kept);
    }
};

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter* center = new NotificationCenter;
    return *center;
}

NotificationCenter::NotificationCenter() : impl_(std::make_unique<Impl>()) {}
NotificationCenter::~NotificationCenter() = default;

void NotificationCenter::addObserver(const void* observer, std::string name, Callback callback, const Object* sender) {
    WL_ASSERT(observer != nullptr, "An observer needs an address to be removed by");
    WL_ASSERT(callback != nullptr, "An observer needs a callback");
    auto registration = std::make_shared<Registration>(observer, std::move(callback));
    std::lock_guard lock(impl_->mutex);
    auto entry = impl_->lists.try_emplace(std::move(name)).first;
    SharedList& list = entry->second;
    auto extended = list ? std::make_shared<Registrations>(*list) : std::make_shared<Registrations>();
    extended->name = entry->first;
    extended->items.push_back({sender, std::move(registration)});
    list = std::move(extended);
    impl_->revision.fetch_add(1, std::memory_order_release);
}

void NotificationCenter::removeObserver(const void* observer) {
    std::lock_guard lock(impl_->mutex);
    for (auto& entry : impl_->lists) Impl::removeFrom(entry.second, observer);
    impl_->revision.fetch_add(1, std::memory_order_release);
}

void NotificationCenter::removeObserver(const void* observer, std::string_view name) {
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->lists.find(name);
    if (it != impl_->lists.end()) Impl::removeFrom(it->second, observer);
    impl_->revision.fetch_add(1, std::memory_order_release);
}

std::uint64_t NotificationCenter::registrationRevision() const noexcept {
    return impl_->revision.load(std::memory_order_acquire);
}

std::shared_ptr<const NotificationCenter::Registrations> NotificationCenter::registrationsFor(
    std::string_view name) const {
    return impl_->listFor(name);
}

void NotificationCenter::postNotification(std::string_view name, std::shared_ptr<Object> sender, UserInfo userInfo) {
    SharedList list = impl_->listFor(name);
    if (!list ||
        std::none_of(list->items.begin(), list->items.end(), [&](const Entry& e) { return wants(e, sender.get()); }))
        return;
    deliver(list->items, Notification{list->name, std::move(sender), std::move(userInfo)});
}

void NotificationCenter::postNotification(const Notification& notification) {
    if (SharedList list = impl_->listFor(notification.name)) deliver(list->items, notification);
}

std::size_t NotificationCenter::observerCount(std::string_view name) const {
    SharedList list = impl_->listFor(name);
    return list ? list->items.size() : 0;
}

ObserverProbe::ObserverProbe(std::string_view name, NotificationCenter& center) : name_(name), center_(&center) {}
ObserverProbe::~ObserverProbe() = default;

void ObserverProbe::refresh(std::uint64_t revision) {
    if (delivering_ > 0 && registrations_) retired_.push_back(std::move(registrations_));
    registrations_ = center_->registrationsFor(name_);
    revision_ = revision;
}

void ObserverProbe::post(const Notification& notification) {
    WL_ASSERT(registrations_ != nullptr, "Post through a probe only when it answered that the name is observed");
    // Not a copy of the shared_ptr: the probe keeps the list, retiring it if
    // a callback makes it refresh.
    const auto& items = registrations_->items;
    struct Delivering {
        ObserverProbe& probe;
        explicit Delivering(ObserverProbe& probe) : probe(probe) { ++probe.delivering_; }
        ~Delivering() {
            if (--probe.delivering_ == 0) probe.retired_.clear();
        }
    } delivering(*this);
    deliver(items, notification);
}

}  // namespace wireloom
