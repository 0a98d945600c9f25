#pragma once

namespace standin {

// In a strict engine, ends the process over a call that an engine need not bear.
void RefuseIfStrict(const char *call);

}  // namespace standin
