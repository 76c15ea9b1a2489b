#include "kelma/clut/ClutTables.h"

#include <mutex>

namespace KELMA_NAMESPACE {

namespace {

// entry = floor(i S + 0.5) >> 19, in 64 bits so that no grid size wraps.
inline InputMapEntry MapEntry(unsigned i, double scale) {
    return static_cast<InputMapEntry>(static_cast<std::uint64_t>(i * scale + 0.5) >> 19);
}

std::mutex g_weightLock;
std::weak_ptr<const ZKCClutWeightTable> g_weights;

}  // namespace

std::vector<InputMapEntry> StandardInputMap(std::uint32_t n) {
    std::vector<InputMapEntry> map(kInputMapSize);
    const double scale = 16777216.0 * (n - 1) / 255.0;
    for (unsigned i = 0; i < 256; ++i) map[i] = MapEntry(i, scale);
    map[256] = map[255];
    return map;
}

std::vector<InputMapEntry> LabChromaInputMap(std::uint32_t n) {
    std::vector<InputMapEntry> map(kInputMapSize);
    const double low = 16777216.0 * (n - 1) / 256.0;
    const double high = 16777216.0 * (n - 1) / 254.0;
    for (unsigned i = 0; i <= 128; ++i) map[i] = MapEntry(i, low);
    for (unsigned i = 129; i < 256; ++i) map[i] = MapEntry(i, high);
    map[256] = map[255];
    return map;
}

std::vector<OutputMapEntry> IdentityOutputMap() {
    std::vector<OutputMapEntry> map(kOutputMapSize);
    for (unsigned i = 0; i < 256; ++i) map[i] = static_cast<OutputMapEntry>(i);
    map[256] = 255;
    return map;
}

ZKCClutWeightTable::ZKCClutWeightTable() : pairs_(1024 * 4), axis_(32 * 8) {
    for (unsigned fa = 0; fa < 32; ++fa) {
        for (unsigned fb = 0; fb < 32; ++fb) {
            ClutPairWeight* row = pairs_.data() + (fa * 32 + fb) * 4;
            row[0] = static_cast<ClutPairWeight>((32 - fa) * (32 - fb));
            row[1] = static_cast<ClutPairWeight>(fa * (32 - fb));
            row[2] = static_cast<ClutPairWeight>((32 - fa) * fb);
            row[3] = static_cast<ClutPairWeight>(fa * fb);
        }
        for (unsigned i = 0; i < 4; ++i) {
            axis_[fa * 8 + i] = static_cast<ClutPairWeight>(32 - fa);
            axis_[fa * 8 + 4 + i] = static_cast<ClutPairWeight>(fa);
        }
    }
}

std::uint32_t ZKCClutWeightTable::Weight3(unsigned f0, unsigned f1, unsigned f2, unsigned k) const {
    return std::uint32_t{pairs_[(f0 * 32 + f1) * 4 + (k & 3)]} * axis_[f2 * 8 + (k >> 2) * 4];
}

std::uint32_t ZKCClutWeightTable::Weight4(unsigned f0, unsigned f1, unsigned f2, unsigned f3, unsigned k) const {
    return std::uint32_t{pairs_[(f0 * 32 + f1) * 4 + (k & 3)]} * pairs_[(f2 * 32 + f3) * 4 + (k >> 2)];
}

std::shared_ptr<const ZKCClutWeightTable> AcquireClutWeightTable() {
    std::lock_guard<std::mutex> lock(g_weightLock);
    std::shared_ptr<const ZKCClutWeightTable> table = g_weights.lock();
    if (!table) {
        table = std::make_shared<const ZKCClutWeightTable>();
        g_weights = table;
    }
    return table;
}

long ClutWeightTableUsers() {
    std::lock_guard<std::mutex> lock(g_weightLock);
    return g_weights.use_count();
}

std::size_t ClutNodeCount(std::uint32_t n, unsigned inputs) {
    std::size_t count = 1;
    for (unsigned a = 0; a < inputs; ++a) count *= n;
    return count;
}

std::size_t ClutNodeArrayBytes(std::uint32_t n, unsigned inputs, unsigned outputs) {
    std::size_t nodes = 0;
    for (unsigned e = 0; e <= inputs; ++e) nodes += ClutNodeCount(n, e);
    return nodes * outputs;
}

void BuildCellTable(const std::uint8_t* nodes, std::uint32_t n, unsigned inputs, unsigned outputs,
                    std::uint8_t* cells) {
    const unsigned corners = 1u << inputs;
    std::vector<std::size_t> offset(corners);
    for (unsigned k = 0; k < corners; ++k) {
        std::size_t o = 0;
        for (unsigned a = 0; a < inputs; ++a)
            if ((k >> a) & 1u) o += ClutNodeCount(n, inputs - 1 - a);
        offset[k] = o * outputs;
    }
    const std::size_t count = ClutNodeCount(n, inputs);
    const std::size_t blockBytes = std::size_t(corners) * outputs;
    for (std::size_t c = 0; c < count; ++c) {
        const std::uint8_t* node = nodes + c * outputs;
        std::uint8_t* block = cells + c * blockBytes;
        for (unsigned j = 0; j < outputs; ++j)
            for (unsigned k = 0; k < corners; ++k) block[j * corners + k] = node[offset[k] + j];
    }
}

}  // namespace KELMA_NAMESPACE
