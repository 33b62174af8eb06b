#pragma once

#include <QStringList>

// QV_TRIGGER_ERROR lets testers force failure paths on a healthy installation. The value
// is searched as plain bytes, so several tokens can be given at once with any separator.
// It is read afresh on every call, so a test can switch triggers while the process runs.
bool isErrorTriggerSet(const char *token);

namespace ErrorTriggers {

// Every token the product knows, in its fixed order. This engine honours three of them;
// the host application consumes the others.
const QStringList &vocabulary();

bool qemuNotInstalled();        // "qemunotinstalled": the installation check fails
bool hypervisorError();         // "hypervhaxmerror": acceleration counts as unusable
bool memoryNotSupported();      // "memorynotsupportederror": diagnosis reports the memory size

} // namespace ErrorTriggers
