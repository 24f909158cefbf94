#include "framework/Notifiee.h"

#include <string>

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
    notifier_->notifieeList()->join(*this);
  } else if (next_ != nullptr) {
    notifier_->notifieeList()->leave(*this);
  }
  registeredIs(registered);
}

void NotifieeList::Round::leaves(const NotifieeBase& notifiee) {
  if (&notifiee == current_) {
    hold();
  } else if (current_ == nullptr && &notifiee == next_) {
    next_ = next_ == last_ ? nullptr : next_->next_;
  } else if (&notifiee == last_) {
    last_ = last_->previous_;
  }
}

void NotifieeList::Round::hold() {
  next_ = current_ == last_ ? nullptr : current_->next_;
  held_ = Ptr<NotifieeBase>(current_);
  current_ = nullptr;
}

NotifieeBase* NotifieeList::Round::nextOfHeld() {
  held_ = nullptr;  // may end it, and with it others
  return next_;
}

void NotifieeList::join(NotifieeBase& notifiee) {
  if (first_ == nullptr) {
    first_ = notifiee.previous_ = notifiee.next_ = &notifiee;
    return;
  }
  notifiee.next_ = first_;
  notifiee.previous_ = first_->previous_;
  notifiee.previous_->next_ = &notifiee;
  first_->previous_ = &notifiee;
}

void NotifieeList::leave(NotifieeBase& notifiee) {
  Round::allLeave(*this, notifiee);
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
