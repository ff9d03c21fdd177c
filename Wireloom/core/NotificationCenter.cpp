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
    Registration(const void* observer, const Object* sender, NotificationCenter::Callback callback)
        : observer(observer), sender(sender), callback(std::move(callback)) {}

    const void* observer;
    const Object* sender;
    NotificationCenter::Callback callback;
    // Set under the center's mutex, read by deliveries that run without it.
    std::atomic<bool> removed{false};
};

// Posting is far more frequent than registering, so each name's list is
// immutable and replaced on change: a post takes the current list with one
// reference count and delivers from it, unaffected by later changes except
// for the `removed` flags.
using RegistrationList = std::vector<std::shared_ptr<Registration>>;
using SharedList = std::shared_ptr<const RegistrationList>;

struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const noexcept { return std::hash<std::string_view>{}(name); }
};

}  // namespace

struct NotificationCenter::Impl {
    mutable std::mutex mutex;
    std::unordered_map<std::string, SharedList, NameHash, std::equal_to<>> lists;
    std::atomic<std::uint64_t> revision{0};

    SharedList listFor(std::string_view name) const {
        std::lock_guard lock(mutex);
        auto it = lists.find(name);
        return it == lists.end() ? nullptr : it->second;
    }

    // Replaces the entry's list by one without the observer's registrations;
    // returns false when the name has none left. Caller holds the mutex.
    static bool removeFrom(SharedList& list, const void* observer) {
        if (std::none_of(list->begin(), list->end(), [&](const auto& r) { return r->observer == observer; }))
            return true;
        auto kept = std::make_shared<RegistrationList>();
        for (const auto& registration : *list) {
            if (registration->observer == observer)
                registration->removed = true;
            else
                kept->push_back(registration);
        }
        list = std::move(kept);
        return !list->empty();
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
    auto registration = std::make_shared<Registration>(observer, sender, std::move(callback));
    std::lock_guard lock(impl_->mutex);
    SharedList& list = impl_->lists[std::move(name)];
    auto extended = list ? std::make_shared<RegistrationList>(*list) : std::make_shared<RegistrationList>();
    extended->push_back(std::move(registration));
    list = std::move(extended);
    impl_->revision.fetch_add(1, std::memory_order_release);
}

void NotificationCenter::removeObserver(const void* observer) {
    std::lock_guard lock(impl_->mutex);
    for (auto it = impl_->lists.begin(); it != impl_->lists.end();)
        it = Impl::removeFrom(it->second, observer) ? std::next(it) : impl_->lists.erase(it);
    impl_->revision.fetch_add(1, std::memory_order_release);
}

void NotificationCenter::removeObserver(const void* observer, std::string_view name) {
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->lists.find(name);
    if (it != impl_->lists.end() && !Impl::removeFrom(it->second, observer)) impl_->lists.erase(it);
    impl_->revision.fetch_add(1, std::memory_order_release);
}

std::uint64_t NotificationCenter::registrationRevision() const noexcept {
    return impl_->revision.load(std::memory_order_acquire);
}

namespace {

bool wants(const Registration& registration, const Object* sender) {
    return !registration.removed.load(std::memory_order_acquire) &&
           (registration.sender == nullptr || registration.sender == sender);
}

void deliver(const RegistrationList& list, const Notification& notification) {
    for (const auto& registration : list)
        if (wants(*registration, notification.sender.get())) registration->callback(notification);
}

}  // namespace

void NotificationCenter::postNotification(std::string_view name, std::shared_ptr<Object> sender, UserInfo userInfo) {
    SharedList list = impl_->listFor(name);
    if (!list || std::none_of(list->begin(), list->end(), [&](const auto& r) { return wants(*r, sender.get()); }))
        return;
    deliver(*list, Notification{std::string(name), std::move(sender), std::move(userInfo)});
}

void NotificationCenter::postNotification(const Notification& notification) {
    if (SharedList list = impl_->listFor(notification.name)) deliver(*list, notification);
}

std::size_t NotificationCenter::observerCount(std::string_view name) const {
    SharedList list = impl_->listFor(name);
    return list ? list->size() : 0;
}

}  // namespace wireloom
