#pragma once

class JsonSettings;
class QSettings;

// Carries the settings of releases that used the native store into the JSON store, then
// stamps it with "version" 1. A store already at version 1 is never touched again.
void migrateSettings(QSettings &legacy, JsonSettings &target);
