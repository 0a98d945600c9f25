// Static objects that threads use.
#pragma once

namespace standin {

// An object that is never destroyed: when the program exits, threads that use it may still run.
template <class T>
T &Lasting() {
    return *new T;
}

}  // namespace standin
