#include "engines/sprd/Plan.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

namespace quorvel::sprd {
namespace {

bool Same(const std::string& a, const char* b) {
    return ::strcasecmp(a.c_str(), b) == 0;
}
bool StartsWith(const std::string& s, const char* prefix) {
    return ::strncasecmp(s.c_str(), prefix, std::strlen(prefix)) == 0;
}

const ListedFile* Find(const std::vector<ListedFile>& files, const std::string& id) {
    const ListedFile* found = nullptr;
    for (const auto& f : files)
        if (::strcasecmp(f.id.c_str(), id.c_str()) == 0) found = &f;  // the later of two wins
    return found;
}

bool SizeOnDisk(const std::string& id, const std::string& path, std::uint64_t& size, std::string& error) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) {
        error = "the package lacks file " + id + " (" + path + " not found)";
        return false;
    }
    size = std::filesystem::file_size(path, ec);
    if (ec) {
        error = "cannot read file " + id + " (" + path + "): " + ec.message();
        return false;
    }
    return true;
}

bool MakeLoader(const Scheme& scheme, const std::vector<ListedFile>& files, const char* id, const char* what,
                Loader& out, std::string& error) {
    const SchemeEntry* entry = nullptr;
    for (const auto& e : scheme.entries)
        if (Same(e.id, id) || (Same(std::string(id), "FDL") && Same(e.id, "FDL1"))) entry = &e;
    if (!entry) {
        error = std::string("the package has no ") + what + " (" + id + ") in its download scheme";
        return false;
    }
    if (!entry->addressed) {
        error = std::string("the package's ") + what + " (" + id + ") has no load address (Block Base)";
        return false;
    }
    const ListedFile* f = Find(files, entry->id);
    if (!f || f->path.empty()) {
        error = std::string("the package lacks its ") + what + " (" + id + ")";
        return false;
    }
    out.path = f->path;
    out.address = static_cast<std::uint32_t>(entry->base);
    if (!SizeOnDisk(entry->id, f->path, out.size, error)) return false;
    if (out.size == 0) {
        error = std::string("the package's ") + what + " (" + id + ") is empty";
        return false;
    }
    return true;
}

}  // namespace

bool ReadFileList(std::string_view text, std::vector<ListedFile>& out, std::string& error) {
    out.clear();
    std::size_t lineNo = 0;
    while (!text.empty()) {
        const std::size_t eol = text.find('\n');
        std::string_view line = text.substr(0, eol);
        text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
        ++lineNo;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) continue;
        std::string_view fields[4];
        std::size_t n = 0;
        for (; n < 4 && !line.empty(); ++n) {
            const std::size_t tab = n < 3 ? line.find('\t') : std::string_view::npos;
            fields[n] = line.substr(0, tab);
            line = tab == std::string_view::npos ? std::string_view() : line.substr(tab + 1);
        }
        std::uint64_t size = 0, flag = 0;
        if (n < 4 || fields[0].empty() || !ParseNumber(fields[2], size) || !ParseNumber(fields[3], flag) ||
            flag > 0xFF) {
            error = "file list line " + std::to_string(lineNo) + " is not FileId, path, size and CheckFlag";
            return false;
        }
        out.push_back({std::string(fields[0]), std::string(fields[1]), size, static_cast<int>(flag)});
    }
    return true;
}

std::string PlanStep::Target() const {
    if (!partition.empty()) return partition;
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", address);
    return text;
}

std::uint64_t Plan::ImageBytes() const {
    std::uint64_t n = 0;
    for (const auto& s : steps) n += s.kind == PlanStep::IMAGE ? s.size : 0;
    return n;
}

bool MakePlan(const Scheme& scheme, const std::vector<ListedFile>& files, int downloadType, Plan& out,
              std::string& error) {
    out = Plan{};
    if (!MakeLoader(scheme, files, "FDL", "first loader", out.fdl, error)) return false;
    if (!MakeLoader(scheme, files, "FDL2", "second loader", out.fdl2, error)) return false;
    out.partitions = scheme.partitions;
    out.nvItems = scheme.nvItems;
    out.keepCalibration = downloadType == 0;

    std::string nvPartition;
    for (const auto& e : scheme.entries)
        if (StartsWith(e.id, "NV") && !e.IsErase() && !e.block.empty()) nvPartition = e.block;

    for (const auto& e : scheme.entries) {
        if (Same(e.id, "FDL") || Same(e.id, "FDL1") || Same(e.id, "FDL2")) continue;
        const ListedFile* f = Find(files, e.id);
        // Every field named: assigned one by one, GCC 12 takes a string of it as uninitialized.
        PlanStep step{.id = e.id,
                      .partition = e.block,
                      .address = static_cast<std::uint32_t>(e.base),
                      .eraseSize = 0,
                      .path = {},
                      .size = 0,
                      .nv = false};
        if (e.IsErase()) {
            // Selected by the list where it names the entry, else by the scheme.
            if (f ? f->checkFlag == 0 : e.checkFlag == 0) continue;
            if (out.keepCalibration && !nvPartition.empty() &&
                ::strcasecmp(e.block.c_str(), nvPartition.c_str()) == 0) {
                out.notes.push_back("erase entry " + e.id + " of the NV partition " + e.block +
                                    " skipped: this download keeps calibration");
                continue;
            }
            step.kind = PlanStep::ERASE;
            step.eraseSize = e.addressed ? e.size : 0;
            out.steps.push_back(std::move(step));
            continue;
        }
        if (e.flag == 0) continue;  // needs no file: nothing to write
        if (!f) {
            if (e.checkFlag == 1) {
                error = "the download scheme names file " + e.id + ", which the package lacks";
                return false;
            }
            continue;
        }
        if (!f->Selected()) continue;
        step.kind = PlanStep::IMAGE;
        step.path = f->path;
        step.nv = StartsWith(e.id, "NV");
        if (!SizeOnDisk(e.id, f->path, step.size, error)) return false;
        if (!e.addressed && e.block.empty()) {
            error = "download scheme entry " + e.id + " has no partition";
            return false;
        }
        out.steps.push_back(std::move(step));
    }
    for (const auto& s : out.steps) {
        if (s.nv && out.keepCalibration && out.nvItems.empty()) {
            error = "the package names no NV items to keep: its NV image " + s.id +
                    " would erase the phone's calibration and IMEI";
            return false;
        }
        if (s.nv && s.partition.empty()) {
            error = "the NV image " + s.id + " has no partition name: its calibration cannot be backed up";
            return false;
        }
    }
    return true;
}

}  // namespace quorvel::sprd
