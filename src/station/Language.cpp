#include "station/Language.h"

#include "platform/SystemLanguage.h"

namespace quorvel::app {

Language::Language(SystemIdSource systemId)
    : systemId_(systemId ? std::move(systemId) : SystemIdSource(&platform::SystemDefaultLangId)) {}

std::uint16_t Language::SystemId() const {
    return systemId_();
}

}  // namespace quorvel::app
