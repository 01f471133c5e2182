#include "tool/edid.h"

#include "rig/session.h"
#include "support/file.h"
#include "tool/edid_file.h"
#include "tool/edid_modes.h"
#include "tool/mode_list.h"
#include "tool/report.h"
#include "tool/text_layout.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fmt/format.h>

namespace tool {

namespace {

using rig::Session;
using rig::Setting;

using Block = std::array<std::uint8_t, EDID_BLOCK_SIZE>;

// End to end: the adapter's DDC, the driver's reading and rewriting, the client's query.
Block readThroughDriver(Session& session, const EdidOptions& options, const std::vector<std::uint8_t>& edid) {
    Block block{};
    session.run([&] {
        session.attachMonitor(edid);
        session.plug({.adapter = options.adapter});
        session.openClient();
        Session::require(session.client().queryEdid(block), "reading the EDID");
    });
    return block;
}

ULONG settingOr(const std::vector<Setting>& settings, std::string_view name, ULONG otherwise) {
    ULONG value = otherwise;
    for (const Setting& setting : settings) {
        if (setting.name == name && std::holds_alternative<ULONG>(setting.value)) {
            value = std::get<ULONG>(setting.value);
        }
    }
    return value;
}

RewriteConditions conditionsOf(const EdidOptions& options) {
    return {.superSpeed = options.adapter.link == usb::Speed::Super,
            .ignored = settingOr(options.settings, "UseForceNonPnpMonitor", 0) != 0,
            .ceaModesCount = options.adapter.transmitter,
            .supported = isOffered};
}

std::string modeText(const EdidMode& mode) {
    return mode.size.width == 0
               ? "(not decoded)"
               : fmt::format("{}x{} at {} Hz", mode.size.width, mode.size.height, mode.refresh);
}

Json modeJson(const EdidMode& mode) {
    return {{"place", mode.place},
            {"width", mode.size.width},
            {"height", mode.size.height},
            {"refresh", mode.refresh}};
}

Json fatesJson(const std::vector<ModeFate>& fates) {
    Json list = Json::array();
    for (const ModeFate& fate : fates) {
        Json entry = modeJson(fate.before);
        entry["fate"] = fateName(fate.fate);
        if (fate.fate == Fate::Changed) {
            entry["becomes"] = modeJson(fate.after);
        }
        entry["reason"] = fate.reason;
        list.push_back(std::move(entry));
    }
    return list;
}

std::string fatesTable(const std::vector<ModeFate>& fates) {
    std::vector<std::vector<std::string>> rows = {{"place", "mode", "fate", "becomes", "reason"}};
    for (const ModeFate& fate : fates) {
        rows.push_back({fate.before.place, modeText(fate.before), std::string(fateName(fate.fate)),
                        fate.fate == Fate::Changed ? modeText(fate.after) : "", fate.reason});
    }
    return formatColumns(rows);
}

std::string offerLine(const std::vector<EdidMode>& offered) {
    std::vector<std::string> modes;
    for (const EdidMode& mode : offered) {
        const std::string text = modeText(mode);
        if (std::ranges::find(modes, text) == modes.end()) {
            modes.push_back(text);
        }
    }
    return modes.empty() ? "nothing: the client reads zeros" : fmt::format("{}", fmt::join(modes, ", "));
}

void printReport(const EdidOptions& options, const std::vector<ModeFate>& fates, const Block& block,
                 const std::vector<std::string>& violations) {
    const std::vector<EdidMode> offered = edidModes(block);
    std::string text;
    if (options.json) {
        Json offers = Json::array();
        std::ranges::transform(offered, std::back_inserter(offers), modeJson);
        const Json json = {{"modes", fatesJson(fates)},
                           {"offered", std::move(offers)},
                           {"block", block},
                           {"violations", violations}};
        text = json.dump(2) + "\n";
    } else {
        text = fmt::format("{}\nthe client is offered: {}\n", fatesTable(fates), offerLine(offered));
        for (const std::string& violation : violations) {
            text += fmt::format("violation at {}\n", violation);
        }
    }
    // Standard output may carry the block itself.
    std::fwrite(text.data(), 1, text.size(), options.out == "-" ? stderr : stdout);
}

} // namespace

ExitStatus showEdid(const EdidOptions& options) {
    const std::vector<std::uint8_t> edid = loadEdid(options.file);
    if (!options.out.empty()) {
        support::requireWritable(options.out);
    }
    rig::SessionOptions sessionOptions;
    sessionOptions.scheduler.seed = options.seed;
    sessionOptions.settings = options.settings;
    Session session(sessionOptions);
    const Block block = readThroughDriver(session, options, edid);
    if (!options.out.empty()) {
        support::writeFile(options.out, block);
    }
    printReport(options, explainRewrite(edid, block, conditionsOf(options)), block, session.violations());
    return session.violationCount() == 0 ? ExitStatus::Right : ExitStatus::Wrong;
}

} // namespace tool
