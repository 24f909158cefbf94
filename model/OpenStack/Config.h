// The agent configuration. Activity thread only.
#pragma once

#include <map>

#include "framework/Time.h"
#include "model/OpenStack/Enumerations.h"
#include "model/OpenStack/MirroredObject.h"
#include "model/OpenStack/VlanAssignment.h"

namespace [[gnu::visibility("default")]] OpenStack {

// VRF name by type of service ACL.
using ServiceAclTypeVrfMap = std::map<Kiv::String, Kiv::String>;

// How the agent is configured. The machines act on vlanTypeDriver and vlanAssignment; the rest is
// the host's.
class Config final : public Kiv::Entity<Config> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::Config";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<Config> {
   public:
    virtual void onEnabled() {}
    virtual void onMandatoryRegion(const Kiv::Name& /*name*/) {}
    virtual void onMandatoryRegionkivImmediate() {}
    virtual void onMandatoryRegion() {}
    virtual void onCredentials(const Kiv::Name& /*name*/) {}
    virtual void onCredentialskivImmediate() {}
    virtual void onCredentials() {}
    virtual void onVlanAssignment(const Kiv::Name& /*name*/) {}
    virtual void onVlanAssignmentkivImmediate() {}
    virtual void onVlanAssignment() {}
    virtual void onDefaultVlanTypeDriver() {}
    virtual void onVlanTypeDriver() {}
    virtual void onDefaultGracePeriod() {}
    virtual void onGracePeriod() {}
    virtual void onDefaultRegionSyncTimeout() {}
    virtual void onRegionSyncTimeout() {}
    virtual void onDefaultAgentMode() {}
    virtual void onAgentMode() {}
    virtual void onKeystoneAuthUrl(const Kiv::Name& /*name*/) {}
    virtual void onKeystoneAuthUrlkivImmediate() {}
    virtual void onKeystoneAuthUrl() {}
    virtual void onServiceAclTypeVrfMap() {}
    virtual void onAuthRole() {}
  };

  // Whether the agent is enabled.
  bool enabled() const { return enabled_.get(); }
  void enabledIs(bool v) { enabled_.is(*this, &NotifieeConst::onEnabled, v); }

  // The regions without which the agent is not ready, by name; owned.
  const auto& mandatoryRegion() const { return mandatoryRegion_; }
  auto& mandatoryRegion() { return mandatoryRegion_; }
  Kiv::Ptr<NamedObject> mandatoryRegionIs(const Kiv::Name& name) {
    return mandatoryRegion_.is(*this, kOnMandatoryRegion, name);
  }
  Kiv::Ptr<NamedObject> mandatoryRegionIs(const Kiv::Ptr<NamedObject>& v) {
    return mandatoryRegion_.is(*this, kOnMandatoryRegion, v);
  }
  Kiv::Ptr<NamedObject> mandatoryRegionDel(const Kiv::Name& name) {
    return mandatoryRegion_.del(*this, kOnMandatoryRegion, name);
  }
  void mandatoryRegionDelAll() { mandatoryRegion_.delAll(*this, kOnMandatoryRegion); }

  // The credentials for the cloud, by name; owned.
  const auto& credentials() const { return credentials_; }
  auto& credentials() { return credentials_; }
  Kiv::Ptr<NamedObject> credentialsIs(const Kiv::Name& name) {
    return credentials_.is(*this, kOnCredentials, name);
  }
  Kiv::Ptr<NamedObject> credentialsIs(const Kiv::Ptr<NamedObject>& v) {
    return credentials_.is(*this, kOnCredentials, v);
  }
  Kiv::Ptr<NamedObject> credentialsDel(const Kiv::Name& name) {
    return credentials_.del(*this, kOnCredentials, name);
  }
  void credentialsDelAll() { credentials_.delAll(*this, kOnCredentials); }

  // The VLANs assigned to each region, by region name; owned.
  const auto& vlanAssignment() const { return vlanAssignment_; }
  auto& vlanAssignment() { return vlanAssignment_; }
  Kiv::Ptr<VlanAssignment> vlanAssignmentIs(const Kiv::Name& name) {
    return vlanAssignment_.is(*this, kOnVlanAssignment, name);
  }
  Kiv::Ptr<VlanAssignment> vlanAssignmentIs(const Kiv::Ptr<VlanAssignment>& v) {
    return vlanAssignment_.is(*this, kOnVlanAssignment, v);
  }
  Kiv::Ptr<VlanAssignment> vlanAssignmentDel(const Kiv::Name& name) {
    return vlanAssignment_.del(*this, kOnVlanAssignment, name);
  }
  void vlanAssignmentDelAll() { vlanAssignment_.delAll(*this, kOnVlanAssignment); }

  // Who assigns VLANs where vlanTypeDriver is not configured.
  VlanTypeDriver defaultVlanTypeDriver() const { return defaultVlanTypeDriver_.get(); }
  void defaultVlanTypeDriverIs(VlanTypeDriver v) {
    defaultVlanTypeDriver_.is(*this, &NotifieeConst::onDefaultVlanTypeDriver, v);
  }

  // Who assigns VLANs to regions.
  VlanTypeDriver vlanTypeDriver() const { return vlanTypeDriver_.get(); }
  void vlanTypeDriverIs(VlanTypeDriver v) {
    vlanTypeDriver_.is(*this, &NotifieeConst::onVlanTypeDriver, v);
  }

  // The grace period where gracePeriod is not configured, in seconds.
  Kiv::Seconds defaultGracePeriod() const { return defaultGracePeriod_.get(); }
  void defaultGracePeriodIs(Kiv::Seconds v) {
    defaultGracePeriod_.is(*this, &NotifieeConst::onDefaultGracePeriod, v);
  }

  // The grace period, in seconds.
  Kiv::Seconds gracePeriod() const { return gracePeriod_.get(); }
  void gracePeriodIs(Kiv::Seconds v) { gracePeriod_.is(*this, &NotifieeConst::onGracePeriod, v); }

  // The region sync timeout where regionSyncTimeout is not configured.
  Kiv::Seconds defaultRegionSyncTimeout() const { return defaultRegionSyncTimeout_.get(); }
  void defaultRegionSyncTimeoutIs(Kiv::Seconds v) {
    defaultRegionSyncTimeout_.is(*this, &NotifieeConst::onDefaultRegionSyncTimeout, v);
  }

  // The region sync timeout. The host hands it to the root machine.
  Kiv::Seconds regionSyncTimeout() const { return regionSyncTimeout_.get(); }
  void regionSyncTimeoutIs(Kiv::Seconds v) {
    regionSyncTimeout_.is(*this, &NotifieeConst::onRegionSyncTimeout, v);
  }

  // The agent mode where agentMode is not configured.
  const Kiv::String& defaultAgentMode() const { return defaultAgentMode_.get(); }
  void defaultAgentModeIs(const Kiv::String& v) {
    defaultAgentMode_.is(*this, &NotifieeConst::onDefaultAgentMode, v);
  }

  // The agent mode.
  const Kiv::String& agentMode() const { return agentMode_.get(); }
  void agentModeIs(const Kiv::String& v) { agentMode_.is(*this, &NotifieeConst::onAgentMode, v); }

  // The authentication URLs, by name; owned.
  const auto& keystoneAuthUrl() const { return keystoneAuthUrl_; }
  auto& keystoneAuthUrl() { return keystoneAuthUrl_; }
  Kiv::Ptr<NamedObject> keystoneAuthUrlIs(const Kiv::Name& name) {
    return keystoneAuthUrl_.is(*this, kOnKeystoneAuthUrl, name);
  }
  Kiv::Ptr<NamedObject> keystoneAuthUrlIs(const Kiv::Ptr<NamedObject>& v) {
    return keystoneAuthUrl_.is(*this, kOnKeystoneAuthUrl, v);
  }
  Kiv::Ptr<NamedObject> keystoneAuthUrlDel(const Kiv::Name& name) {
    return keystoneAuthUrl_.del(*this, kOnKeystoneAuthUrl, name);
  }
  void keystoneAuthUrlDelAll() { keystoneAuthUrl_.delAll(*this, kOnKeystoneAuthUrl); }

  // Which VRF each type of service ACL applies to.
  const ServiceAclTypeVrfMap& serviceAclTypeVrfMap() const { return serviceAclTypeVrfMap_.get(); }
  void serviceAclTypeVrfMapIs(const ServiceAclTypeVrfMap& v) {
    serviceAclTypeVrfMap_.is(*this, &NotifieeConst::onServiceAclTypeVrfMap, v);
  }

  // The role that the agent authenticates as.
  const Kiv::String& authRole() const { return authRole_.get(); }
  void authRoleIs(const Kiv::String& v) { authRole_.is(*this, &NotifieeConst::onAuthRole, v); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnMandatoryRegion{
      &NotifieeConst::onMandatoryRegion, &NotifieeConst::onMandatoryRegionkivImmediate,
      &NotifieeConst::onMandatoryRegion, "mandatoryRegion"};
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnCredentials{
      &NotifieeConst::onCredentials, &NotifieeConst::onCredentialskivImmediate,
      &NotifieeConst::onCredentials, "credentials"};
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnVlanAssignment{
      &NotifieeConst::onVlanAssignment, &NotifieeConst::onVlanAssignmentkivImmediate,
      &NotifieeConst::onVlanAssignment, "vlanAssignment"};
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnKeystoneAuthUrl{
      &NotifieeConst::onKeystoneAuthUrl, &NotifieeConst::onKeystoneAuthUrlkivImmediate,
      &NotifieeConst::onKeystoneAuthUrl, "keystoneAuthUrl"};

  Kiv::Scalar<bool> enabled_;
  Kiv::Collection<NamedObject, Kiv::Name> mandatoryRegion_;
  Kiv::Collection<NamedObject, Kiv::Name> credentials_;
  Kiv::Collection<VlanAssignment, Kiv::Name> vlanAssignment_;
  Kiv::Scalar<VlanTypeDriver> defaultVlanTypeDriver_;
  Kiv::Scalar<VlanTypeDriver> vlanTypeDriver_;
  Kiv::Scalar<Kiv::Seconds> defaultGracePeriod_;
  Kiv::Scalar<Kiv::Seconds> gracePeriod_;
  Kiv::Scalar<Kiv::Seconds> defaultRegionSyncTimeout_;
  Kiv::Scalar<Kiv::Seconds> regionSyncTimeout_;
  Kiv::Scalar<Kiv::String> defaultAgentMode_;
  Kiv::Scalar<Kiv::String> agentMode_;
  Kiv::Collection<NamedObject, Kiv::Name> keystoneAuthUrl_;
  Kiv::Scalar<ServiceAclTypeVrfMap> serviceAclTypeVrfMap_;
  Kiv::Scalar<Kiv::String> authRole_;
};

}  // namespace OpenStack
