#pragma once

/// The parts of the table. Each starts the programs that it measures and leaves none behind.
void ServiceRows(); ///< what launches tools
void ServerRows();  ///< conversations without tools
void CrowdRows();   ///< 10,000 conversations, and more than there are descriptors for
void LifeRows();    ///< start, idleness, settings
