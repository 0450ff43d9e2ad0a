#pragma once

#include "manager/PipeServer.h"
#include "support/ManagerNames.h"

class CSetupManager;

/// The manager's local pipe. Each request asks for the registration of a database server. The setup manager
/// carries it out, and its text (empty: done) is the reply. Owned by the setup manager.
class CPipeServerVelmoManager : public CPipeServer
{
public:
    ~CPipeServerVelmoManager() override { bStop(); }

    /// Not owned; set before bStart.
    void SetManager(CSetupManager* pclManager) { m_pclManager = pclManager; }

protected:
    /// A request of the single-byte form is carried out, but its reply is always "UNKNOWN": the clients of
    /// that form rely on it. A request of an unknown form gets the same reply and is not carried out.
    void _ProcessMessage(const stSEND* pstSend, stRET* pstReturn) override;
    const char* _vpszGetServerPipeName() const override { return g_szManagerPipe; }

private:
    /// The reply in UTF-8; empty: registered.
    std::string _csRegister(STRegistration stServer);

    CSetupManager* m_pclManager = nullptr;
};
