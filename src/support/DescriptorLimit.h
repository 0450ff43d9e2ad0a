#pragma once

/// Raises this process's soft limit of descriptors to its hard one: a conversation costs a descriptor, and
/// services are usually started with 1,024. The old limit is kept for the children: a program that uses
/// select or closes "all" descriptors may rely on it. Main thread, before any endpoint runs.
void RaiseDescriptorLimit();

/// The soft limit before RaiseDescriptorLimit. Async-signal-safe.
int nOriginalDescriptorLimit() noexcept;

/// Restores the limit from before RaiseDescriptorLimit; does nothing when the limit was not raised. For a
/// child before exec: async-signal-safe.
void RestoreDescriptorLimit() noexcept;
