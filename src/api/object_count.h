#pragma once
// How many public objects and class-factory locks are alive in this module, so that the module
// can tell the component system whether it may be unloaded.

namespace qv {

void ObjectCreated() noexcept;
void ObjectDestroyed() noexcept;
void ModuleLocked() noexcept;
void ModuleUnlocked() noexcept;
// True when nothing made by this module is alive and nothing holds it locked.
bool ModuleIsIdle() noexcept;

}  // namespace qv
