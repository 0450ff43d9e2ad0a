#include "manager/PipeServerVelmoManager.h"

#include "manager/SetupManager.h"
#include "support/Conversion.h"

#include <tuple>
#include <utility>

std::string CPipeServerVelmoManager::_csRegister(STRegistration stServer)
{
    CTString csMessage;
    m_pclManager->RegisterServer(std::move(stServer), &csMessage);
    return csToUTF8(csMessage);
}

void CPipeServerVelmoManager::_ProcessMessage(const stSEND* pstSend, stRET* pstReturn)
{
    constexpr std::string_view csUnknown = "UNKNOWN";
    switch (pstSend->nForm) {
    case PIPE_FORM_ANSI:
        std::ignore = _csRegister(stReadAnsi(*pstSend)); // a failure is in the log
        WriteReply(csUnknown, pstReturn);
        break;
    case PIPE_FORM_UTF16:
        WriteReply(_csRegister(stReadUTF16(*pstSend)), pstReturn);
        break;
    default:
        WriteReply(csUnknown, pstReturn);
    }
}
