#pragma once
// The language rule: every user text is a Chinese/English pair, chosen at every
// use by comparing the station's LanguageId with the system's default language id.
// Any thread may call any method.

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace quorvel::app {

struct LangText {
    const char* zh;
    const char* en;
};

inline constexpr std::uint32_t kLangChinese = 2052;
inline constexpr std::uint32_t kLangEnglish = 1033;

class Language {
public:
    using SystemIdSource = std::function<std::uint16_t()>;

    // `systemId` is asked at every choice (the platform's locale by default).
    explicit Language(SystemIdSource systemId = {});

    std::uint32_t LanguageId() const { return languageId_.load(); }
    void SetLanguageId(std::uint32_t id) { languageId_.store(id); }
    std::uint16_t SystemId() const;

    // Chinese when LanguageId equals the system id, English otherwise.
    bool ChineseChosen() const { return LanguageId() == SystemId(); }
    std::string ChooseText(const LangText& text) const { return ChineseChosen() ? text.zh : text.en; }

private:
    std::atomic<std::uint32_t> languageId_{kLangChinese};
    SystemIdSource systemId_;
};

}  // namespace quorvel::app
