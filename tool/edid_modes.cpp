#include "tool/edid_modes.h"

#include "device/client_abi.h"
#include "device/mode_limits.h"
#include "display/mode_tables.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <optional>

namespace tool {

namespace {

constexpr std::size_t kEstablished = 35;
constexpr std::size_t kStandard = 38;
constexpr unsigned kStandardEntries = 8;
constexpr std::size_t kDetailed = 54;
constexpr std::size_t kDetailedBytes = 18;
constexpr unsigned kDetailedSlots = 4;

using Bytes = std::span<const std::uint8_t>;

struct KnownMode {
    unsigned code; // bit from the highest of byte 35 on, or VIC
    support::Size size;
    unsigned refresh;
};

// VESA E-EDID 1.3, table 3.14.
constexpr auto kEstablishedModes = std::to_array<KnownMode>({
    {0, {720, 400}, 70},
    {1, {720, 400}, 88},
    {2, {640, 480}, 60},
    {3, {640, 480}, 67},
    {4, {640, 480}, 72},
    {5, {640, 480}, 75},
    {6, {800, 600}, 56},
    {7, {800, 600}, 60},
    {8, {800, 600}, 72},
    {9, {800, 600}, 75},
    {10, {832, 624}, 75},
    {11, {1024, 768}, 87},
    {12, {1024, 768}, 60},
    {13, {1024, 768}, 70},
    {14, {1024, 768}, 75},
    {15, {1280, 1024}, 75},
    {16, {1152, 870}, 75},
});

// CEA-861-D, table 3: the progressive formats and the interlaced ones of high definition.
constexpr auto kCeaModes = std::to_array<KnownMode>({
    {1, {640, 480}, 60},
    {2, {720, 480}, 60},
    {3, {720, 480}, 60},
    {4, {1280, 720}, 60},
    {5, {1920, 1080}, 60},
    {16, {1920, 1080}, 60},
    {17, {720, 576}, 50},
    {18, {720, 576}, 50},
    {19, {1280, 720}, 50},
    {20, {1920, 1080}, 50},
    {31, {1920, 1080}, 50},
    {32, {1920, 1080}, 24},
    {33, {1920, 1080}, 25},
    {34, {1920, 1080}, 30},
    {41, {1280, 720}, 100},
    {47, {1280, 720}, 120},
    {63, {1920, 1080}, 120},
});

bool hasHeader(Bytes edid) {
    constexpr std::array<std::uint8_t, 8> header = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
    return edid.size() >= EDID_BLOCK_SIZE && std::ranges::equal(edid.first(header.size()), header);
}

void addEstablished(Bytes block, std::vector<EdidMode>& modes) {
    for (const KnownMode& known : kEstablishedModes) {
        if ((block[kEstablished + known.code / 8] >> (7 - known.code % 8) & 1) != 0) {
            modes.push_back({"established", known.size, known.refresh, known.code});
        }
    }
}

// Entries that are empty (01 01) or reserved (00) carry no mode.
std::optional<EdidMode> standardMode(Bytes block, unsigned entry) {
    const unsigned first = block[kStandard + 2 * entry];
    const unsigned second = block[kStandard + 2 * entry + 1];
    if (first == 0 || (first == 1 && second == 1)) {
        return std::nullopt;
    }
    const unsigned width = first * 8 + 248;
    constexpr std::array<std::array<unsigned, 2>, 4> aspects = {{{16, 10}, {4, 3}, {5, 4}, {16, 9}}};
    const auto [across, down] = aspects[second >> 6];
    return EdidMode{
        fmt::format("standard {}", entry + 1), {width, width / across * down}, (second & 0x3F) + 60, entry};
}

// A slot without pixel clock is a descriptor, not a timing.
std::optional<EdidMode> detailedMode(Bytes block, unsigned slot) {
    const Bytes timing = block.subspan(kDetailed + slot * kDetailedBytes, kDetailedBytes);
    const unsigned clock = timing[0] | timing[1] << 8;
    const unsigned width = timing[2] | (timing[4] & 0xF0) << 4;
    const unsigned height = timing[5] | (timing[7] & 0xF0) << 4;
    const unsigned widthTotal = width + (timing[3] | (timing[4] & 0x0F) << 8);
    const unsigned heightTotal = height + (timing[6] | (timing[7] & 0x0F) << 8);
    if (clock == 0) {
        return std::nullopt;
    }
    const double total = static_cast<double>(widthTotal) * heightTotal;
    const unsigned refresh = total == 0 ? 0 : static_cast<unsigned>(clock * 10000.0 / total + 0.5);
    return EdidMode{fmt::format("detailed {}", slot + 1), {width, height}, refresh, slot};
}

void addCea(Bytes block, std::vector<EdidMode>& modes) {
    constexpr unsigned kVideoTag = 2;
    const std::size_t end = std::min<std::size_t>(block[2], EDID_BLOCK_SIZE);
    for (std::size_t at = 4; block[0] == 2 && at < end;) {
        const unsigned tag = block[at] >> 5;
        const std::size_t next = at + 1 + (block[at] & 0x1F);
        for (std::size_t byte = at + 1; tag == kVideoTag && byte < std::min(next, end); byte++) {
            const unsigned vic = block[byte] & 0x7F;
            const auto known = std::ranges::find(kCeaModes, vic, &KnownMode::code);
            const KnownMode mode = known == kCeaModes.end() ? KnownMode{vic, {}, 0} : *known;
            modes.push_back({fmt::format("CEA VIC {}", vic), mode.size, mode.refresh, vic});
        }
        at = next;
    }
}

bool isCea(const EdidMode& mode) {
    return mode.place.starts_with("CEA");
}

// Why a mode cannot remain unchanged.
std::string whyNot(const EdidMode& mode, const RewriteConditions& conditions) {
    if (mode.size.width * mode.size.height > MODE_MAX_PIXELS) {
        return fmt::format("more than {} pixels", MODE_MAX_PIXELS);
    }
    if (mode.refresh != 60) {
        return "only 60 Hz is offered";
    }
    if (!conditions.supported(mode.size, mode.refresh)) {
        return "not in the adapter's mode table";
    }
    return "";
}

// The same for a mode that the rewrite took away or replaced. `after` need not come from the driver, so a
// mode that the adapter drives may be missing from it.
std::string whyGone(const EdidMode& mode, const RewriteConditions& conditions) {
    const std::string reason = whyNot(mode, conditions);
    return reason.empty() ? "removed, although the adapter drives it" : reason;
}

std::string singleModeReason() {
    return "on a USB 2.0 link the setting picks the one mode offered";
}

class Explainer {
  public:
    Explainer(Bytes before, Bytes after, const RewriteConditions& conditions)
        : before_(before.first(EDID_BLOCK_SIZE)), after_(after), conditions_(conditions) {}

    std::vector<ModeFate> run(Bytes edid) {
        established();
        for (unsigned entry = 0; entry < kStandardEntries; entry++) {
            standard(entry);
        }
        for (unsigned slot = 0; slot < kDetailedSlots; slot++) {
            detailed(slot);
        }
        for (const EdidMode& mode : edidModes(edid)) {
            if (isCea(mode)) {
                cea(mode);
            }
        }
        return std::move(fates_);
    }

  private:
    void established() {
        std::vector<EdidMode> was;
        std::vector<EdidMode> is;
        addEstablished(before_, was);
        addEstablished(after_, is);
        for (const EdidMode& mode : was) {
            const bool stays = std::ranges::find(is, mode) != is.end();
            if (stays) {
                keep(mode, "the adapter drives it");
            } else {
                drop(mode, rewritten()
                               ? conditions_.superSpeed
                                     ? "of these only 640x480, 800x600 and 1024x768 at 60 Hz are offered"
                                     : singleModeReason()
                               : "");
            }
        }
        for (const EdidMode& mode : is) {
            if (std::ranges::find(was, mode) == was.end()) {
                add(mode, conditions_.superSpeed ? "always offered" : singleModeReason());
            }
        }
    }

    void standard(unsigned entry) {
        const std::optional<EdidMode> was = standardMode(before_, entry);
        const std::optional<EdidMode> is = standardMode(after_, entry);
        if (was && is == was) {
            // The monitor itself may have listed the placeholder mode.
            const std::string reason = whyNot(*was, conditions_);
            keep(*was,
                 reason.empty() ? "the adapter drives it" : reason + ", but its entry is the placeholder");
        } else if (was && is) {
            change(*was, *is, whyGone(*was, conditions_) + ": its entry becomes the placeholder");
        } else if (was) {
            drop(*was, singleModeReason());
        } else if (is) {
            add(*is, "an empty entry becomes the placeholder");
        }
    }

    void detailed(unsigned slot) {
        const std::optional<EdidMode> was = detailedMode(before_, slot);
        const std::optional<EdidMode> is = detailedMode(after_, slot);
        const Bytes oldBytes = before_.subspan(kDetailed + slot * kDetailedBytes, kDetailedBytes);
        const Bytes newBytes = after_.subspan(kDetailed + slot * kDetailedBytes, kDetailedBytes);
        if (was && is && std::ranges::equal(oldBytes, newBytes)) {
            const std::string reason = whyNot(*was, conditions_);
            keep(*was, reason.empty() ? "the adapter drives it" : "unchanged, although: " + reason);
        } else if (was && is && was->size == is->size) {
            change(*was, *is,
                   was->refresh == 60 ? "preferred timing, rewritten" : "its clock was set for 60 Hz");
        } else if (was && is) {
            const std::string reason = whyNot(*was, conditions_);
            change(*was, *is,
                   !conditions_.superSpeed ? singleModeReason()
                   : reason.empty()        ? "the largest mode offered becomes the preferred one"
                                           : reason);
        } else if (was) {
            drop(*was, whyGone(*was, conditions_));
        } else if (is) {
            add(*is, conditions_.superSpeed ? "the largest mode offered becomes the preferred one"
                                            : singleModeReason());
        }
    }

    void cea(const EdidMode& mode) {
        const bool counts =
            conditions_.ceaModesCount && conditions_.superSpeed && (mode.code == 4 || mode.code == 16);
        drop(mode,
             counts ? "the client reads the base block only; the mode counts when the preferred one is chosen"
                    : "the client reads the base block only");
    }

    bool rewritten() const { return !std::ranges::equal(before_, after_); }

    void keep(const EdidMode& mode, std::string reason) {
        fates_.push_back(
            {Fate::Kept, mode, {}, rewritten() ? std::move(reason) : "the EDID is passed on unchanged"});
    }
    void change(const EdidMode& mode, const EdidMode& to, std::string reason) {
        fates_.push_back({Fate::Changed, mode, to, std::move(reason)});
    }
    void drop(const EdidMode& mode, std::string reason) {
        fates_.push_back({Fate::Dropped, mode, {}, std::move(reason)});
    }
    void add(const EdidMode& mode, std::string reason) {
        fates_.push_back({Fate::Added, mode, {}, std::move(reason)});
    }

    Bytes before_;
    Bytes after_;
    const RewriteConditions& conditions_;
    std::vector<ModeFate> fates_;
};

} // namespace

std::vector<EdidMode> edidModes(std::span<const std::uint8_t> edid) {
    std::vector<EdidMode> modes;
    if (!hasHeader(edid)) {
        return modes;
    }
    addEstablished(edid, modes);
    for (unsigned entry = 0; entry < kStandardEntries; entry++) {
        if (const std::optional<EdidMode> mode = standardMode(edid, entry)) {
            modes.push_back(*mode);
        }
    }
    for (unsigned slot = 0; slot < kDetailedSlots; slot++) {
        if (const std::optional<EdidMode> mode = detailedMode(edid, slot)) {
            modes.push_back(*mode);
        }
    }
    for (std::size_t at = EDID_BLOCK_SIZE; at + EDID_BLOCK_SIZE <= edid.size(); at += EDID_BLOCK_SIZE) {
        addCea(edid.subspan(at, EDID_BLOCK_SIZE), modes);
    }
    return modes;
}

std::string_view fateName(Fate fate) {
    switch (fate) {
    case Fate::Kept:
        return "kept";
    case Fate::Changed:
        return "changed";
    case Fate::Dropped:
        return "dropped";
    case Fate::Added:
        return "added";
    }
    return "";
}

std::vector<ModeFate> explainRewrite(std::span<const std::uint8_t> before,
                                     std::span<const std::uint8_t> after,
                                     const RewriteConditions& conditions) {
    if (before.size() < EDID_BLOCK_SIZE || after.size() < EDID_BLOCK_SIZE) {
        return {};
    }
    const bool blank =
        std::ranges::all_of(after.first(EDID_BLOCK_SIZE), [](std::uint8_t byte) { return byte == 0; });
    if (!blank) {
        return Explainer(before, after.first(EDID_BLOCK_SIZE), conditions).run(before);
    }
    std::vector<ModeFate> fates;
    for (const EdidMode& mode : edidModes(before)) {
        fates.push_back({Fate::Dropped,
                         mode,
                         {},
                         conditions.ignored
                             ? "the EDID is not read because of the setting UseForceNonPnpMonitor"
                             : "the EDID could not be read or is not valid"});
    }
    return fates;
}

} // namespace tool
