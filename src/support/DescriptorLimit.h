#pragma once

/// Raises this process's soft limit of descriptors to its hard one: a conversation costs a descriptor, and
/// services are usually started with 1,024. What the limit was is kept for the children, since a program that
/// uses select or closes "all" descriptors may rely on it. Main thread, before any endpoint runs.
void RaiseDescriptorLimit();

/// The soft limit before RaiseDescriptorLimit. Async-signal-safe.
int nOriginalDescriptorLimit() noexcept;

/// Puts the limit back to what it was before RaiseDescriptorLimit; does nothing when that was never called.
/// For a child ahead of exec: async-signal-safe.
void RestoreDescriptorLimit() noexcept;
