#include "qemuengine.h"

// The module's one exported symbol. Every call hands out a new engine that the caller owns
// and destroys through the virtual destructor; nothing is cached between calls.
extern "C" Q_DECL_EXPORT VMToolsEngine *getVMToolsEngine()
{
    return new QEMUEngine();
}
