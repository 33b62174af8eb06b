#pragma once

class JsonSettings;
class QSettings;

// Carries the settings of releases that used the native store into the JSON store, then
// stamps it with "version" 1, all under the store's lock. A store already at version 1 is
// never touched again, nor is one whose damaged predecessor was moved aside: it only gets
// the stamp.
void migrateSettings(QSettings &legacy, JsonSettings &target);
