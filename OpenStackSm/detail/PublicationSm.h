// What the two machines share that publish the segments of a binding.
//
// Each mirrors its binding's segments, one reactor for each level, and publishes from
// handleSegment(); the removal of a reactor withdraws. They differ in where they write and in what
// they withdraw, and that is all that PortToHostBindingSm and PortToSwitchInterfaceBindingSm say
// themselves.
//
// Levels: the segment at level n + 1 lies right below the one at level n, and a VXLAN segment right
// above a VLAN segment means that the VLAN carries that VNI. Levels wrap: 0 follows 255.
#pragma once

#include <optional>

#include "OpenStackSm/Attributes.h"
#include "OpenStackSm/detail/PortText.h"
#include "OpenStackSm/detail/Trace.h"
#include "framework/Assert.h"
#include "framework/Machine.h"
#include "model/OpenStack/Port.h"
#include "model/OpenStack/Segment.h"
#include "model/VirtualNetwork/RequestedResources.h"

namespace [[gnu::visibility("default")]] OpenStack {
namespace detail {

inline bool isVlan(const Segment* segment) {
  return segment != nullptr && segment->segmentationType() == SegmentationType::vlan;
}
inline bool isVxlan(const Segment* segment) {
  return segment != nullptr && segment->segmentationType() == SegmentationType::vxlan;
}

// A level of a binding, and what its segment has in the outputs as far as its reactor knows: at the
// end of a machine, what was withdrawn and not published since is spent.
enum class Publication : Kiv::U8 { present, withdrawn, spent };
struct Level {
  Kiv::U8 level;
  Publication publication = Publication::present;
};

// M: the machine, which gives kAttributes, the names of its reactors' types, handleSegment(),
// withdrawSegment(), boundTo() and, in its Arguments, the port, the requested resources and the
// binding. B: the binding that it publishes. factory: the function that makes an M.
template <class M, class B, auto factory>
class PublicationSm : public Kiv::Machine<M, factory> {
 public:
  // The machine's end runs the cleanup of each segment; what is withdrawn already stays so.
  static constexpr bool kTeardownRunsCleanup = true;

  // Observes the binding; mirrors its segments.
  class KivBinding final : public Kiv::Reactor<KivBinding, M, B> {
   public:
    static constexpr std::string_view kTypeName = M::kBindingReactorTypeName;
    using KivBinding::Reactor::Reactor;

    void onSegment(Kiv::U8 level) override {
      if (this->live() && this->machine()->initialized()) this->machine()->handleSegment(level);
      if (this->mirrors()) this->machine()->mirrorSegment(*this->entity(), level);
    }
    void onSegmentkivImmediate() override { mirror(); }

   private:
    void mirror() override {
      if (this->mirrors()) this->machine()->mirrorSegments(*this->entity());
    }
  };

  // The segment at one level; its removal withdraws what the segment published.
  class KivSegment final : public Kiv::PassiveReactor<KivSegment, M, Segment, detail::Level> {
   public:
    static constexpr std::string_view kTypeName = M::kSegmentReactorTypeName;

    // At a level of a machine.
    KivSegment(Kiv::U8 level, const Kiv::Ptr<const Segment>& segment, M* machine)
        : KivSegment::PassiveReactor(detail::Level{level}, segment, machine) {}

    Kiv::U8 level() const { return fwkKey(); }
    const Kiv::U8& fwkKey() const { return KivSegment::PassiveReactor::fwkKey().level; }

    // To tools it shows its level too.
    const Kiv::GenericIf* genericIf() const override {
      static const auto description = Kiv::describe<KivSegment>(Kiv::attributes(
          Kiv::plain("level", &KivSegment::level), Kiv::plain("notifier", &KivSegment::entity)));
      return &description;
    }

    // Withdraws what the segment published. At the end of the machine it does so only when that has
    // not been done since the level was last published.
    void doCleanup() {
      static constexpr auto here = handler<M>("KivSegment::doCleanup");
      if (!this->mirrors()) {
        trace(1, here, this, "No segment to clean up");
        return;
      }
      const Kiv::Ptr<KivSegment> hold(this);
      const Publication before = publication();
      if (before == Publication::present) publication() = Publication::withdrawn;
      try {
        this->machine()->withdrawSegment(*this);
      } catch (...) {
        publication() = before;  // a part may be left
        throw;
      }
    }
    // Whether there is nothing to withdraw, as the machine ends after a cleanup.
    bool spent() const {
      return KivSegment::PassiveReactor::fwkKey().publication == Publication::spent;
    }

   private:
    friend class PublicationSm;

    void kivHandle() override { this->machine()->kiv_handleSegment(Kiv::Ptr<KivSegment>(this)); }
    Publication& publication() { return this->key().publication; }
  };

  using SegmentMap = Kiv::ReactorMap<KivSegment, Kiv::U8, false>;

  // The reactors of the binding's segments, by level. Another segment at a level that has one takes
  // its place, after the old one's cleanup. Throws a range exception for a null segment.
  const SegmentMap& segment() const { return segment_; }
  SegmentMap& segment() { return segment_; }
  Kiv::Ptr<KivSegment> segmentIs(Kiv::U8 level, const Kiv::Ptr<const Segment>& v) {
    segment_.requireEntity(self(), v);
    const Kiv::Ptr<const Segment> segment = v;  // the caller's may end with the old one's cleanup
    while (KivSegment* existing = segment_[level]) {
      if (existing->notifier() == segment.get()) return existing;
      segmentDel(level);
    }
    const auto reactor = Kiv::make<KivSegment>(level, segment, &self());
    segment_.insert(self(), reactor);
    segmentNotify(level);
    return reactor;
  }
  Kiv::Ptr<const Segment> segmentDel(Kiv::U8 level) { return segment_.del(level); }
  Kiv::Ptr<const Segment> segmentDel(const typename SegmentMap::iterator& at) {
    return segment_.del(at.key());
  }
  void segmentDelAll() { segment_.delAll(); }
  void segmentNotify(Kiv::U8 /*level*/) {}
  void kiv_handleSegment(const Kiv::Ptr<KivSegment>& reactor) { reactor->doCleanup(); }

  // Handles every segment that is mirrored.
  void handleInitialized() {
    static constexpr auto here = handler<M>("handleInitialized");
    trace(9, here, this, "");
    for (const auto& reactor : segment_) self().handleSegment(reactor->level());
    this->initializedIs(true);
  }

 protected:
  PublicationSm() = default;

  // The end of the machine; see Kiv::Machine.
  void teardown() noexcept {
    segment_.forEachUnguarded([](KivSegment& reactor) {
      if (reactor.publication() == Publication::withdrawn) {
        reactor.publication() = Publication::spent;
      }
    });
    Kiv::Machine<M, factory>::teardown();
  }

  // The binding; null when there is none.
  Kiv::Ptr<const B> binding() const { return self().arguments_.binding.entity(); }

  // The binding's segment at a level, and those right above and below, borrowed until something is
  // written; null when there is none.
  const Segment* at(Kiv::U8 level) const {
    const B* b = self().arguments_.binding.notifier();
    if (b == nullptr) return nullptr;
    const Kiv::Ptr<const Segment>* segment = b->segment().find(level);
    return segment == nullptr ? nullptr : segment->get();
  }
  const Segment* above(Kiv::U8 level) const { return at(static_cast<Kiv::U8>(level - 1)); }
  const Segment* below(Kiv::U8 level) const { return at(static_cast<Kiv::U8>(level + 1)); }

  // Notes that something is about to be published for the VLAN at this level, which is then to be
  // withdrawn with it.
  void publishes(Kiv::U8 level) {
    if (KivSegment* reactor = segment_[level]) {
      reactor->publication() = Publication::present;
    }
  }

  // Makes the VLAN carry the VNI, for this port.
  void mapVni(VirtualNetwork::VlanReferences& vlan, Kiv::U32 vni) const {
    vlan.mappedVniIs(vni)->referrerIs(self().port()->id(), true);
  }

  // Withdraws this port from the VNI that the segment right above a level gives its VLAN. Returns
  // the VNI when nobody needs it any more, for the caller to delete.
  std::optional<Kiv::U32> unmapVni(VirtualNetwork::VlanReferences& vlan, Kiv::U8 level) const {
    const Segment* parent = above(level);
    if (!isVxlan(parent)) return std::nullopt;
    const Kiv::U32 vni = parent->segmentationId();
    const Kiv::Ptr<VirtualNetwork::VniReferences> mapping(vlan.mappedVni()[vni]);
    if (!mapping) return std::nullopt;
    mapping->referrerDel(self().port()->id());
    if (!mapping->referrer().empty()) return std::nullopt;
    return vni;
  }

  // For the machine's table of attributes.
  static constexpr auto segmentMap() { return &PublicationSm::segment_; }
  static constexpr auto segmentDelByLevel() {
    return static_cast<Kiv::Ptr<const Segment> (PublicationSm::*)(Kiv::U8)>(
        &PublicationSm::segmentDel);
  }

  // The level of a reactor, found by its segment. Stops the process when the reactor is not in the
  // machine's collection.
  Kiv::U8 levelOf(const KivSegment& reactor, const Kiv::TraceSource& here) const {
    const KivSegment* found = nullptr;
    segment_.forEachUnguarded([&](const KivSegment& member) {
      if (found == nullptr && member.notifier() == reactor.notifier()) found = &member;
    });
    KIV_ASSERT_ABOUT(found, here.file, here.function, aboutPort(self().port(), self().boundTo()));
    return found->level();
  }

  // Runs the cleanup of every segment of the binding; the reactors stay until the machine ends.
  void doCleanupSegments(const Kiv::TraceSource& here) {
    const auto b = binding();
    if (!b) return;
    for (const auto& entry : b->segment()) {
      trace(9, here, this, [&](auto& text) {
        text << "Port connected to segment : " << entry.value->segmentationType()
             << entry.value->segmentationId();
      });
      if (const Kiv::Ptr<KivSegment> reactor{segment_[entry.key]}) {
        reactor->doCleanup();
      } else {
        trace(1, here, this, [&](auto& text) {
          text << "No reactor at level " << static_cast<unsigned>(entry.key);
        });
      }
    }
  }

  auto reactors() { return std::tie(self().arguments_.binding, segment_); }
  auto children() { return std::tuple<>(); }

 private:
  friend class Kiv::Machine<M, factory>;

  M& self() { return static_cast<M&>(*this); }
  const M& self() const { return static_cast<const M&>(*this); }

  void mirrorSegment(const B& binding, Kiv::U8 level) {
    if (const auto segment = binding.segment(level)) {
      segmentIs(level, segment);
    } else {
      segmentDel(level);
    }
  }
  void mirrorSegments(const B& binding) {
    for (const auto& entry : binding.segment()) segmentIs(entry.key, entry.value);
    for (const auto& reactor : segment_) {
      if (!binding.segment().contains(reactor->level())) segmentDel(reactor->level());
    }
  }

  SegmentMap segment_;
};

}  // namespace detail
}  // namespace OpenStack
