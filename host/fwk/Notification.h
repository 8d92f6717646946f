// Notification and reactors.
//
// Entities that react to others (state machines) switch their reactions on and off with
// hasNotificationActiveIs(bool). A NotifyingCollection is a keyed collection that tells its
// reactors of every insert, change and delete of a key through their per-key handler; a
// reactor re-reads the key and acts on its current value (present or gone). When a reactor
// is switched on, its All handler runs once, by default the per-key handler over every key,
// so that it catches up with what was there before it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "host/fwk/Ptr.h"

namespace Ovk {

// The notification switch of an entity.
class NotificationSwitch {
 public:
   virtual ~NotificationSwitch() = default;
   bool notificationActive() const { return notificationActive_; }
   virtual void hasNotificationActiveIs(bool on) { notificationActive_ = on; }

 private:
   bool notificationActive_ = false;
};

template <class Key, class Value>
class NotifyingCollection : public PtrInterface {
 public:
   class Reactor : public NotificationSwitch {
    public:
      explicit Reactor(Ptr<NotifyingCollection> notifier) : notifier_(std::move(notifier)) {}
      ~Reactor() override {
         if (attached_) notifier_->detach(this);
      }
      Reactor(Reactor const&) = delete;
      Reactor& operator=(Reactor const&) = delete;

      NotifyingCollection* notifier() const { return notifier_.ptr(); }

      // Switching on attaches the reactor and runs handleAll() once; switching off detaches.
      void hasNotificationActiveIs(bool on) override {
         bool const was = notificationActive();
         NotificationSwitch::hasNotificationActiveIs(on);
         if (on && !was) {
            attached_ = true;
            notifier_->attach(this);
            handleAll();
         } else if (!on && was) {
            attached_ = false;
            notifier_->detach(this);
         }
      }

      // A key was inserted, changed or deleted.
      virtual void handleKey(Key const& key) = 0;
      // Runs once when the reactor is switched on.
      virtual void handleAll() {
         std::vector<Key> keys;
         keys.reserve(notifier_->size());
         for (auto const& kv : notifier_->entries()) keys.push_back(kv.first);
         for (Key const& k : keys) handleKey(k);
      }

    private:
      Ptr<NotifyingCollection> notifier_;
      bool attached_ = false;
   };

   static Ptr<NotifyingCollection> create() { return makePtr<NotifyingCollection>(); }

   // Inserts or changes `key`; reactors hear of it only when the value changed.
   void set(Key const& key, Value value) {
      auto [it, inserted] = entries_.try_emplace(key, value);
      if (!inserted) {
         if (it->second == value) return;
         it->second = std::move(value);
      }
      notify(key);
   }
   // Deletes `key`; false when it was not there.
   bool del(Key const& key) {
      if (entries_.erase(key) == 0) return false;
      notify(key);
      return true;
   }
   Value const* find(Key const& key) const {
      auto it = entries_.find(key);
      return it == entries_.end() ? nullptr : &it->second;
   }
   std::size_t size() const { return entries_.size(); }
   std::map<Key, Value> const& entries() const { return entries_; }
   std::size_t reactors() const {
      return static_cast<std::size_t>(
          std::count_if(reactors_.begin(), reactors_.end(), [](Reactor* r) { return r != nullptr; }));
   }

 private:
   void attach(Reactor* r) { reactors_.push_back(r); }
   void detach(Reactor* r) {
      auto it = std::find(reactors_.begin(), reactors_.end(), r);
      if (it == reactors_.end()) return;
      if (notifying_)
         *it = nullptr;
      else
         reactors_.erase(it);
   }
   void notify(Key const& key) {
      ++notifying_;
      // Index loop: reactors may attach or detach others while they run.
      for (std::size_t i = 0; i < reactors_.size(); ++i) {
         if (Reactor* r = reactors_[i]) r->handleKey(key);
      }
      if (--notifying_ == 0) {
         reactors_.erase(std::remove(reactors_.begin(), reactors_.end(), nullptr), reactors_.end());
      }
   }

   std::map<Key, Value> entries_;
   std::vector<Reactor*> reactors_;
   unsigned notifying_ = 0;
};

} // namespace Ovk
