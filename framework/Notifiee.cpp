#include "framework/Notifiee.h"

#include <string>
#include <utility>

#include "framework/Entity.h"

namespace [[gnu::visibility("default")]] Kiv {

NotifieeBase::NotifieeBase() = default;

NotifieeBase::~NotifieeBase() {
  isRegisteredNotifieeIs(false);
}

void NotifieeBase::notifierIs(const Ptr<const PtrInterface>& entity) {
  if (entity && !(entity->fwkType() == kivNotifierType())) {
    throwRangeException("a notifiee of " + std::string(kivNotifierType().name()) +
                        " cannot observe a " + std::string(entity->fwkType().name()));
  }
  isRegisteredNotifieeIs(false);
  notifier_ = Ptr<const EntityBase>(static_cast<const EntityBase*>(entity.get()));
}

void NotifieeBase::isRegisteredNotifieeIs(bool registered) {
  if (registered == this->registered() || !notifier_) return;
  if (!passive()) {
    NotifieeList& list = *notifier_->notifieeList();
    registered ? list.add(*this) : list.remove(*this);
  }
  registeredIs(registered);
}

void NotifieeList::ListCursor::unlinking(const NotifieeList& list, const NotifieeBase& notifiee) {
  forEachIn(&list, [&](Cursor& cursor) { static_cast<ListCursor&>(cursor).correct(notifiee); });
  Cursor::remove(&list, notifiee);
}

void NotifieeList::ListCursor::correct(const NotifieeBase& unlinked) {
  if (removed_ && &unlinked == next_) {
    next_ = next_ == last_ ? nullptr : next_->links_.ring.next;
  } else if (!removed_ && &unlinked == notifiee()) {
    next_ = &unlinked == last_ ? nullptr : unlinked.links_.ring.next;
    removed_ = true;
  } else if (&unlinked == last_) {
    last_ = last_->links_.ring.previous;
  }
}

void NotifieeList::ListCursor::nextOfStale() {
  do {
    NotifieeBase* const called = notifiee();
    NotifieeBase* next = next_;
    if (!std::exchange(removed_, false))
      next = called == last_ ? nullptr : called->links_.ring.next;
    advance(next);  // may free `called`, and with it `next` and others
  } while (notifiee() != nullptr && pinned());
}

void NotifieeList::add(NotifieeBase& notifiee) {
  if (first_ == nullptr) {
    first_ = notifiee.links_.ring.previous = notifiee.links_.ring.next = &notifiee;
    return;
  }
  notifiee.links_.ring.next = first_;
  notifiee.links_.ring.previous = first_->links_.ring.previous;
  notifiee.links_.ring.previous->links_.ring.next = &notifiee;
  first_->links_.ring.previous = &notifiee;
}

void NotifieeList::remove(NotifieeBase& notifiee) {
  ListCursor::unlinking(*this, notifiee);
  if (notifiee.links_.ring.next == &notifiee) {
    first_ = nullptr;
  } else {
    notifiee.links_.ring.previous->links_.ring.next = notifiee.links_.ring.next;
    notifiee.links_.ring.next->links_.ring.previous = notifiee.links_.ring.previous;
    if (first_ == &notifiee) first_ = notifiee.links_.ring.next;
  }
  notifiee.links_.ring.previous = notifiee.links_.ring.next = nullptr;
}

}  // namespace Kiv
