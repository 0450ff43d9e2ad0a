// What comes over the network and the pipe: a discovery question, a request record, a reply's text.

#include "manager/PingEcho.h"
#include "manager/PipeRecords.h"
#include "support/Conversion.h"
#include "Target.h"

#include <cstdint>
#include <cstring>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes)
{
    const std::string_view csBytes = csInput(pBytes, nBytes);

    const EPingForm eForm = eReadPing(csBytes);
    Require(eForm == EPingForm::NONE || csBytes.size() <= 34); // with its NUL
    const std::string csServers = "\t" + std::string(csBytes);
    for (const std::size_t nMax : {std::size_t{0}, nBytes / 2, nBytes, nBytes + 1}) {
        const std::string_view cs = csFittingServers(csServers, nMax);
        Require(cs.size() <= nMax && csServers.starts_with(cs));
        Require(cs.size() == csServers.size() || csServers[cs.size()] == '\t');
    }

    const auto pstSend = std::make_unique<stSEND>();
    csBytes.copy(reinterpret_cast<char*>(pstSend.get()), sizeof(stSEND));
    const STRegistration stAnsi = stReadAnsi(*pstSend);
    Require(stAnsi.csName.size() <= 261 && stAnsi.csPath.size() <= 261);
    const STRegistration stWide = stReadUTF16(*pstSend);
    Require(stWide.csName.size() <= 129 && stWide.csPath.size() <= 262);
    for (const std::wstring& cs : {stAnsi.csName, stAnsi.csPath, stWide.csName, stWide.csPath}) {
        Require(cs.find(L'\0') == std::wstring::npos);
    }

    const auto pstReturn = std::make_unique<stRET>();
    const std::string csText = csToUTF8(csFromUTF8(csBytes)); // what a reply is made of is well-formed
    WriteReply(csText, pstReturn.get());
    const std::string csSent(pstReturn->szText.data(),
                             strnlen(pstReturn->szText.data(), sizeof pstReturn->szText));
    Require(pstReturn->cEnd == 0 && csText.starts_with(csSent) && csToUTF8(csFromUTF8(csSent)) == csSent);
    return 0;
}
