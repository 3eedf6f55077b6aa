// What the rows share; see the header.
#include "compare/work.h"

#include <algorithm>
#include <cmath>

#include "compare/posix/raw_file.h"

namespace k9erepl::bench {

double Percentile(std::vector<double> values, double share) {
    if (values.empty()) {
        return 0;
    }
    const double last = static_cast<double>(values.size() - 1);
    const auto nth = values.begin() + std::lround(share * last);
    std::nth_element(values.begin(), nth, values.end());
    return *nth;
}

OurStorage::OurStorage(const std::string& parent, const std::string& settings) : m_file(parent) {
    Require(K9eReplStorageCreate(m_file.ConnStr(settings).c_str(), K9EREPL_CREATE_NEW) == RC_OK,
            "creating the storage");
    Open(settings);
}

void OurStorage::Open(const std::string& settings) {
    m_handle.emplace(m_file.ConnStr(settings));
    m_handle->Load();
}

u32 K9EREPL_CALL AddUp(const K9eReplRec* rec, void* context) {
    *static_cast<i64*>(context) += rec->rev + rec->dataSize;
    return 0;
}

K9eReplEnumCb Receiver() {
    static volatile K9eReplEnumCb receiver = &AddUp;
    return receiver;
}

std::vector<u8> PackedRecords(i64 count) {
    std::vector<u8> packed(static_cast<std::size_t>(count) * kRecordSize, 'x');
    for (i64 rev = 1; rev <= count; ++rev) {
        u8* const record = packed.data() + static_cast<std::size_t>(rev - 1) * kRecordSize;
        const u32 signatureAndSize[] = {0x7B3A2D2A, kRecordSize};
        const u32 wordAndDataSize[] = {7, kDataSize};
        std::memcpy(record, signatureAndSize, sizeof(signatureAndSize));
        std::memcpy(record + 8, &rev, sizeof(rev));
        std::memcpy(record + 16, wordAndDataSize, sizeof(wordAndDataSize));
    }
    return packed;
}

std::vector<u64> OffsetsOfRecords(const std::string& path) {
    RawFile file(path, RawFile::Mode::kRead);
    file.SeekTo(kFirstItem);
    std::vector<u8> piece(kPieceSize);
    struct Place {
        std::vector<u64> offsets;
        const u8* piece;
        u64 pieceOffset;  // in the file
        u64 end;          // of the last record, in the file
    } place{{}, piece.data(), kFirstItem, kFirstItem};
    const auto note = [](const K9eReplRec* rec, void* context) -> u32 {
        auto* const to = static_cast<Place*>(context);
        const auto inPiece = reinterpret_cast<const u8*>(rec) - 8 - to->piece;
        to->offsets.push_back(to->pieceOffset + static_cast<u64>(inPiece));
        to->end = to->offsets.back() + kHeadSize + rec->dataSize;
        return 0;
    };
    std::size_t kept = 0;
    while (const std::size_t got = file.Read(piece.data() + kept, kPieceSize - kept)) {
        const std::size_t walked = Walk(piece.data(), kept + got, note, &place);
        kept = kept + got - walked;
        std::memmove(piece.data(), piece.data() + walked, kept);
        place.pieceOffset += walked;
    }
    place.offsets.push_back(place.end);
    return std::move(place.offsets);
}

double MedianOf(int passes, const std::function<double()>& pass) {
    std::vector<double> results;
    for (int done = 0; done < passes; ++done) {
        results.push_back(pass());
    }
    return Percentile(std::move(results), 0.5);
}

void Enumerate(void* handle, i64 fromRev, i64 count) {
    i64 sum = 0;
    const i64 toRev = fromRev + count - 1;
    Require(K9eReplStorageEnumRecords(handle, fromRev, toRev, &AddUp, &sum) == RC_OK,
            "enumerating");
    Require(sum == (fromRev + toRev) * count / 2 + count * i64{kDataSize},
            "enumerating every record");
}

}  // namespace k9erepl::bench
