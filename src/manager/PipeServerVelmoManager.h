#pragma once

#include "manager/PipeServer.h"
#include "support/ManagerNames.h"

class CSetupManager;

/// The manager's local pipe: each request asks for the registration of a database server, which the setup
/// manager carries out; its text (empty: done) is the reply. Owned by the setup manager.
class CPipeServerVelmoManager : public CPipeServer
{
public:
    ~CPipeServerVelmoManager() override { bStop(); }

    /// Not owned; set before bStart.
    void SetManager(CSetupManager* pclManager) { m_pclManager = pclManager; }

protected:
    /// A request of the single-byte form is carried out but always answered "UNKNOWN", like one of an unknown
    /// form, which is not carried out: the clients of that form expect this answer.
    void _ProcessMessage(const stSEND* pstSend, stRET* pstReturn) override;
    const char* _vpszGetServerPipeName() const override { return g_szManagerPipe; }

private:
    std::string _csRegister(STRegistration stServer);

    CSetupManager* m_pclManager = nullptr;
};
