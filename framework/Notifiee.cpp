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
  if (registered) {
    notifier_->notifieeList()->add(*this);
  } else if (next_ != nullptr) {
    notifier_->notifieeList()->remove(*this);
  }
  registeredIs(registered);
}

void NotifieeList::ListCursor::unlinking(const NotifieeList& list, const NotifieeBase& notifiee) {
  forEachIn(&list, [&](Cursor& cursor) { static_cast<ListCursor&>(cursor).correct(notifiee); });
  Cursor::remove(&list, notifiee);
}

void NotifieeList::ListCursor::correct(const NotifieeBase& unlinked) {
  if (removed_ && &unlinked == next_) {
    next_ = next_ == last_ ? nullptr : next_->next_;
  } else if (!removed_ && &unlinked == notifiee()) {
    next_ = &unlinked == last_ ? nullptr : unlinked.next_;
    removed_ = true;
  } else if (&unlinked == last_) {
    last_ = last_->previous_;
  }
}

void NotifieeList::ListCursor::nextOfStale() {
  do {
    NotifieeBase* const called = notifiee();
    NotifieeBase* next = next_;
    if (!std::exchange(removed_, false)) next = called == last_ ? nullptr : called->next_;
    advance(next);  // may free `called`, and with it `next` and others
  } while (notifiee() != nullptr && pinned());
}

void NotifieeList::add(NotifieeBase& notifiee) {
  if (first_ == nullptr) {
    first_ = notifiee.previous_ = notifiee.next_ = &notifiee;
    return;
  }
  notifiee.next_ = first_;
  notifiee.previous_ = first_->previous_;
  notifiee.previous_->next_ = &notifiee;
  first_->previous_ = &notifiee;
}

void NotifieeList::remove(NotifieeBase& notifiee) {
  ListCursor::unlinking(*this, notifiee);
  if (notifiee.next_ == &notifiee) {
    first_ = nullptr;
  } else {
    notifiee.previous_->next_ = notifiee.next_;
    notifiee.next_->previous_ = notifiee.previous_;
    if (first_ == &notifiee) first_ = notifiee.next_;
  }
  notifiee.previous_ = notifiee.next_ = nullptr;
}

}  // namespace Kiv
