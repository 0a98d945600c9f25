#include "started_module.h"

#include <string>

#include "channel/service_channel.h"
#include "kes/thread.h"
#include "module/lifecycle.h"
#include "module/registration.h"
#include "standin/channels.h"
#include "standin/runtime.h"

namespace fuzz {

StartedModule::StartedModule(uint32_t links) {
    standin::SetCapability("WCWP_SPEC_MAX_LINK_NUM", links);
    standin::SetCapability("WCWP_SPEC_MAX_DATA_LINK_NUM", links);
    standin::SetCapability("WCWP_SPEC_SVC_NUM", kInstances - 1);
    mod_kes_lyrhost.moduleId = kId;
    tov_mod_ctr_mod_kes_lyrhost();
    tov_mod_localctr_mod_kes_lyrhost();  // packets come on this thread
    Require(LyrKes_Init() == 0, "the module starts");
    standin::WaitUntilCreatedThreadsIdle();
}

StartedModule::~StartedModule() {
    Require(LyrKes_Exit() == 0, "the module stops");
    standin::JoinCreatedThreads();
    tov_mod_localdtr_mod_kes_lyrhost();
}

uint32_t StartedModule::OpenInstance(uint32_t number, uint32_t pktType) {
    const std::string digits = std::to_string(number);
    TOV_ThreadInfoRegByName((TOV_THD_KES2LYR(pktType) + digits).c_str());
    return standin::OpenChannel(TOV_CHN_KES2LYR(pktType) + digits, 2);
}

}  // namespace fuzz
