#pragma once
// The checks of a PAC package that need no extraction, shared by CBinPack, the
// technicians' tool and the fuzz target: header checks, file-table checks, reading
// header and table, and verifying both CRCs by streaming the data. Any thread.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "packages/PacFormat.h"

namespace quorvel::packages {

// The header checks in the extraction's order: header CRC (when the Magic asks for
// CRCs), version, product name (normalised in place), package size, file count.
// `bytesRead` is how much of the header the package held. On failure `message` is
// the station's message.
bool CheckPacHeader(PacHeader& header, std::size_t bytesRead, std::uint64_t fileSize, std::string& message);

// Reads the text field of table entry `entry`. On failure `message` is the station's
// message for the way it is broken: no terminator inside the field, or not UTF-16 (an
// unpaired surrogate).
bool ReadEntryText(const char16_t* field, std::size_t units, int entry, std::string& out, std::string& message);
template <std::size_t N>
bool ReadEntryText(const char16_t (&field)[N], int entry, std::string& out, std::string& message) {
    return ReadEntryText(field, N, entry, out, message);
}

// An entry whose size no package can hold; extraction and verification refuse it with
// the read-failed message when they reach it.
bool PacEntrySizeImpossible(const PacHeader& header, const PacFileEntry& entry);

// Every entry that will receive data has a readable, bare file name.
bool CheckPacFileNames(const PacHeader& header, const std::vector<PacFileEntry>& table, std::string& message);

// The number of table entries a package can hold after its header; -1 for a negative count.
std::int64_t PacTableCapacity(std::uint64_t fileSize);

struct PacContents {
    PacHeader header;
    std::vector<PacFileEntry> table;  // every entry, FileName as stored
    std::uint64_t fileSize = 0;
};

// Reads and checks header and table (not the data). False with the station's message.
bool ReadPacContents(const std::string& path, PacContents& out, std::string& message);

struct PacVerification {
    bool crcPresent = false;
    bool headerCrcOk = false;
    bool dataComplete = false;  // every entry's data is in the file, sizes in range
    bool dataCrcOk = false;
    std::uint64_t dataBytes = 0;  // bytes of file data after the table
};

// Streams the whole package through one buffer and checks both CRCs. `progress`
// (may be empty) gets the percent read before each chunk. False with the station's
// message when the package cannot be read as far as its CRCs. Refuses what extraction
// refuses before its first write, so a package it passes fails extraction only for
// want of disk space or a path too long for the extraction folder. `contents`, when
// given, receives header and table.
bool VerifyPac(const std::string& path, PacVerification& out, std::string& message,
               const std::function<void(int)>& progress = {}, PacContents* contents = nullptr);

// The table the station hands on after extraction: as many entries dropped from the
// end as there are unnamed entries (empty FileId) with data.
std::size_t HandedOnCount(const std::vector<PacFileEntry>& table);

}  // namespace quorvel::packages
