#pragma once

// The parts of the table. Each starts the programs that it measures and ends them, and leaves its servers
// installed: for root in a throwaway machine.

void ServiceRows(); ///< the state of one server, and the restart monitor
void ListRows();    ///< listings, and what waits for one: INFO, discovery, registration, velmoctl list
void ServerRows();  ///< conversations without tools
void CrowdRows();   ///< 10,000 conversations, and more than there are descriptors for
void LifeRows();    ///< start, idleness, settings
