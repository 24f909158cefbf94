// How the tests of the model observe an entity: the notifications that a change causes.
//
// A watcher writes down each notification: "segment!" is the immediate one, "segment a" the keyed
// one, "segment" the one without a key or that of a scalar.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "framework/Attribute.h"
#include "framework/Text.h"
#include "tests/support/live_objects.h"

namespace Model {

inline std::vector<std::string> told;

template <class K>
std::string text(const K& key) {
  std::ostringstream stream;
  if constexpr (std::is_integral_v<K>) {
    stream << static_cast<unsigned long>(key);
  } else {
    stream << key;
  }
  return stream.str();
}

template <class K>
void keyed(const std::string& attribute, const K& key) {
  told.push_back(attribute + " " + text(key));
}
inline void plain(const std::string& notification) {
  told.push_back(notification);
}

class ModelTest : public testing::Test {
 protected:
  ModelTest() { told.clear(); }

  std::vector<std::string> delivered() {
    loop_.run();
    return std::exchange(told, {});
  }

  // Runs `change`, and returns the notifications of a watcher of class W.
  template <class W, class E, class Change>
  std::vector<std::string> toldOf(const Kiv::Ptr<E>& entity, Change change) {
    const Kiv::Ptr<W> watcher = Kiv::make<W>();
    watcher->notifierIs(entity);
    watcher->isRegisteredNotifieeIs(true);
    watcher->hasNotificationActiveIs(true);
    change();
    return delivered();
  }

  static auto three(const std::string& attribute, const std::string& key) {
    return testing::ElementsAre(attribute + "!", attribute + " " + key, attribute);
  }

  // A scalar: it has its default at first, holds what is written, and tells of each write.
  template <class W, class E, class B, class R, class A, class T>
  void isScalar(const Kiv::Ptr<E>& entity, const std::string& name, R (B::*get)() const,
                void (B::*is)(A), const T& byDefault, const T& value) {
    SCOPED_TRACE(name);
    EXPECT_EQ(((*entity).*get)(), byDefault);
    for (int i = 0; i < 2; ++i) {
      EXPECT_THAT(toldOf<W>(entity, [&] { ((*entity).*is)(value); }), testing::ElementsAre(name));
      EXPECT_EQ(((*entity).*get)(), value);
    }
    ((*entity).*is)(byDefault);
    EXPECT_EQ(((*entity).*get)(), byDefault);
  }

  // A collection of owned children: made or returned by key, found by key, deleted by key or all.
  template <class W, class E, class B, class V, class A>
  void ownsChildren(const Kiv::Ptr<E>& entity, const std::string& name,
                    const Kiv::Collection<V, std::remove_cvref_t<A>>& (B::*get)() const,
                    Kiv::Ptr<V> (B::*is)(A), Kiv::Ptr<V> (B::*del)(A), void (B::*delAll)(),
                    const std::type_identity_t<std::remove_cvref_t<A>>& key,
                    const std::type_identity_t<std::remove_cvref_t<A>>& other) {
    SCOPED_TRACE(name);
    E& e = *entity;
    const auto& children = (e.*get)();
    EXPECT_TRUE(children.empty());
    EXPECT_EQ(children[key], nullptr);

    Kiv::Ptr<V> made;
    EXPECT_THAT(toldOf<W>(entity, [&] { made = (e.*is)(key); }), three(name, text(key)));
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->fwkKey(), key);
    EXPECT_EQ(children[key], made.get());
    EXPECT_EQ(children.size(), 1U);
    EXPECT_THAT(toldOf<W>(entity, [&] { EXPECT_EQ((e.*is)(key), made); }), testing::IsEmpty());

    Kiv::Ptr<V> gone;
    EXPECT_THAT(toldOf<W>(entity, [&] { gone = (e.*del)(key); }), three(name, text(key)));
    EXPECT_EQ(gone, made);
    EXPECT_EQ(children[key], nullptr);
    EXPECT_THAT(toldOf<W>(entity, [&] { EXPECT_EQ((e.*del)(key), nullptr); }), testing::IsEmpty());

    (void)(e.*is)(key);
    (void)(e.*is)(other);
    EXPECT_EQ(children.size(), 2U);
    EXPECT_THAT(toldOf<W>(entity, [&] { (e.*delAll)(); }),
                testing::UnorderedElementsAre(name + "!", name + "!", name + " " + text(key),
                                              name + " " + text(other), name));
    EXPECT_TRUE(children.empty());
  }

  // A collection that also takes in children made elsewhere, in place of those with their keys.
  template <class W, class E, class B, class V, class K>
  void takesChildren(const Kiv::Ptr<E>& entity, const std::string& name,
                     const Kiv::Collection<V, K>& (B::*get)() const,
                     Kiv::Ptr<V> (B::*is)(const Kiv::Ptr<V>&), const std::type_identity_t<K>& key) {
    SCOPED_TRACE(name);
    E& e = *entity;
    const auto& children = (e.*get)();
    const Kiv::Ptr<V> first = Kiv::make<V>(key);
    const Kiv::Ptr<V> second = Kiv::make<V>(key);
    EXPECT_THAT(toldOf<W>(entity, [&] { EXPECT_EQ((e.*is)(first), first); }),
                three(name, text(key)));
    EXPECT_EQ(children[key], first.get());
    EXPECT_THAT(toldOf<W>(entity, [&] { (e.*is)(first); }), testing::IsEmpty());
    EXPECT_THAT(toldOf<W>(entity, [&] { EXPECT_EQ((e.*is)(second), second); }),
                three(name, text(key)));
    EXPECT_EQ(children[key], second.get());
    EXPECT_EQ(children.size(), 1U);
    EXPECT_EQ(first->references(), 1U);
    EXPECT_THROW((e.*is)(nullptr), Kiv::RangeException);
  }

  // A set of keys with a bool.
  template <class W, class E, class B, class A>
  void isValueSet(const Kiv::Ptr<E>& entity, const std::string& name,
                  const Kiv::ValueSet<std::remove_cvref_t<A>>& (B::*get)() const,
                  void (B::*is)(A, bool), void (B::*del)(A), void (B::*delAll)(),
                  const std::type_identity_t<std::remove_cvref_t<A>>& key,
                  const std::type_identity_t<std::remove_cvref_t<A>>& other) {
    SCOPED_TRACE(name);
    E& e = *entity;
    const auto& set = (e.*get)();
    EXPECT_TRUE(set.empty());
    EXPECT_THAT(toldOf<W>(entity, [&] { (e.*is)(key, true); }), three(name, text(key)));
    EXPECT_TRUE(set[key]);
    EXPECT_THAT(toldOf<W>(entity, [&] { (e.*is)(key, true); }), testing::IsEmpty());
    EXPECT_EQ(set.size(), 1U) << "membership counts once";
    EXPECT_THAT(toldOf<W>(entity, [&] { (e.*is)(key, false); }), three(name, text(key)));
    EXPECT_FALSE(set[key]);
    EXPECT_TRUE(set.contains(key));
    EXPECT_THAT(toldOf<W>(entity, [&] { (e.*del)(key); }), three(name, text(key)));
    EXPECT_FALSE(set.contains(key));
    EXPECT_THAT(toldOf<W>(entity, [&] { (e.*del)(key); }), testing::IsEmpty());

    (e.*is)(key, true);
    (e.*is)(other, true);
    EXPECT_EQ(set.size(), 2U);
    EXPECT_THAT(toldOf<W>(entity, [&] { (e.*delAll)(); }),
                testing::UnorderedElementsAre(name + "!", name + "!", name + " " + text(key),
                                              name + " " + text(other), name));
    EXPECT_TRUE(set.empty());
  }

 private:
  Support::LiveObjects nothingIsLeft_;

 protected:
  Kiv::ActivityManager loop_;
};

}  // namespace Model
