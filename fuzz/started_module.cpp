#include "started_module.h"

#include "module/lifecycle.h"
#include "module/registration.h"
#include "standin/runtime.h"

namespace fuzz {

StartedModule::StartedModule(uint32_t links) {
    standin::SetCapability("WCWP_SPEC_MAX_LINK_NUM", links);
    standin::SetCapability("WCWP_SPEC_MAX_DATA_LINK_NUM", links);
    mod_kes_lyrhost.moduleId = kId;
    tov_mod_ctr_mod_kes_lyrhost();
    Require(LyrKes_Init() == 0, "the module starts");
    standin::WaitUntilCreatedThreadsIdle();
}

StartedModule::~StartedModule() {
    Require(LyrKes_Exit() == 0, "the module stops");
    standin::JoinCreatedThreads();
}

}  // namespace fuzz
