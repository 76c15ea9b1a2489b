#include "kelma/clut/ClutTables.h"
#include "kelma/common/LibraryErrors.h"

#include <sys/mman.h>

#include <cstdlib>
#include <mutex>
#include <new>

namespace KELMA_NAMESPACE {

namespace {

// entry = floor(i S + 0.5) >> 19, in 64 bits so that no grid size wraps.
inline InputMapEntry MapEntry(unsigned i, double scale) {
    return static_cast<InputMapEntry>(static_cast<std::uint64_t>(i * scale + 0.5) >> 19);
}

// Weight of corner k for the positions f[0..inputs-1], from the definition.
inline std::uint32_t CornerWeight(const unsigned* f, unsigned inputs, unsigned k) {
    std::uint32_t w = 1;
    for (unsigned a = 0; a < inputs; ++a) w *= (k >> a) & 1u ? f[a] : 32u - f[a];
    return w;
}

// Row r of a table of `inputs` axes: f0 = r >> 5 (inputs - 1) (32 for the extra
// last row), each further axis the next 5 bits down.
void FillRow(std::size_t r, unsigned inputs, std::uint32_t* row) {
    unsigned f[4];
    for (unsigned a = 0; a < inputs; ++a) {
        const unsigned shift = 5 * (inputs - 1 - a);
        f[a] = a == 0 ? static_cast<unsigned>(r >> shift) : static_cast<unsigned>((r >> shift) & 31u);
    }
    for (unsigned k = 0; k < (1u << inputs); ++k) row[k] = CornerWeight(f, inputs, k);
}

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

void ZKCClutWeightTable::Free::operator()(std::uint32_t* p) const { std::free(p); }

ZKCClutWeightTable::ZKCClutWeightTable(unsigned inputs) : inputs_(inputs), pairs_(1024 * 4) {
    if (inputs != 3 && inputs != 4) throw kErrorDefaultCase;
    const unsigned corners = Corners();
    rowCount_ = (std::size_t(1) << (5 * inputs)) + 1;
    // 64-byte rows of four inputs each fill one cache line (32-byte rows half of
    // one). The 64 MiB four-input table is laid on whole 2 MiB pages and offered
    // to the kernel for huge pages (a hint only): filling it then takes 32 page
    // faults instead of 16384, which is most of its build time.
    constexpr std::size_t kHugePage = std::size_t(2) << 20;
    const std::size_t align = inputs == 4 ? kHugePage : 64;
    const std::size_t bytes = (rowCount_ * corners * sizeof(std::uint32_t) + align - 1) / align * align;
    rows_.reset(static_cast<std::uint32_t*>(std::aligned_alloc(align, bytes)));
    if (!rows_) throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
    if (inputs == 4) madvise(rows_.get(), bytes, MADV_HUGEPAGE);
#endif

    for (unsigned fa = 0; fa < 32; ++fa)
        for (unsigned fb = 0; fb < 32; ++fb) {
            ClutPairWeight* p = pairs_.data() + (fa * 32 + fb) * 4;
            p[0] = static_cast<ClutPairWeight>((32 - fa) * (32 - fb));
            p[1] = static_cast<ClutPairWeight>(fa * (32 - fb));
            p[2] = static_cast<ClutPairWeight>((32 - fa) * fb);
            p[3] = static_cast<ClutPairWeight>(fa * fb);
        }

    // Rows 0 .. 32^d - 1: W[r][k] = (product of the axes of k's low part) times
    // (product of the rest), the two factors being pair rows (or axis factors),
    // the same integers as FillRow gives; the extra last row by FillRow itself.
    axis_ = AlignedBuffer<ClutPairWeight>(32 * 8);
    for (unsigned f = 0; f < 32; ++f)
        for (unsigned i = 0; i < 4; ++i) {
            axis_[f * 8 + i] = static_cast<ClutPairWeight>(32 - f);
            axis_[f * 8 + 4 + i] = static_cast<ClutPairWeight>(f);
        }
    std::uint32_t* row = rows_.get();
    if (inputs == 3) {
        for (unsigned pair = 0; pair < 1024; ++pair) {
            const ClutPairWeight* p = pairs_.data() + pair * 4;
            for (unsigned f2 = 0; f2 < 32; ++f2, row += 8) {
                const std::uint32_t a[2] = {32u - f2, f2};
                for (unsigned k = 0; k < 8; ++k) row[k] = std::uint32_t{p[k & 3]} * a[k >> 2];
            }
        }
    } else {
        for (unsigned high = 0; high < 1024; ++high) {
            const ClutPairWeight* p = pairs_.data() + high * 4;
            for (unsigned low = 0; low < 1024; ++low, row += 16) {
                const ClutPairWeight* q = pairs_.data() + low * 4;
                for (unsigned k = 0; k < 16; ++k) row[k] = std::uint32_t{p[k & 3]} * q[k >> 2];
            }
        }
    }
    FillRow(rowCount_ - 1, inputs, row);
}

ZKCClutWeightTable::~ZKCClutWeightTable() = default;

namespace {

// One slot per shape: the table lives as long as a worker holds it; the slot
// only watches it, so the last holder frees it without taking the lock.
struct SharedTableSlot {
    std::mutex mutex;
    std::weak_ptr<const ZKCClutWeightTable> table;
};

SharedTableSlot& SlotOf(unsigned inputs) {
    static SharedTableSlot slots[2];
    if (inputs != 3 && inputs != 4) throw kErrorDefaultCase;
    return slots[inputs - 3];
}

}  // namespace

std::shared_ptr<const ZKCClutWeightTable> AcquireClutWeightTable(unsigned inputs) {
    SharedTableSlot& slot = SlotOf(inputs);
    std::lock_guard<std::mutex> lock(slot.mutex);
    std::shared_ptr<const ZKCClutWeightTable> table = slot.table.lock();
    if (!table) {
        table = std::make_shared<const ZKCClutWeightTable>(inputs);
        slot.table = table;
    }
    return table;
}

std::shared_ptr<const ZKCClutWeightTable> LiveClutWeightTable(unsigned inputs) {
    SharedTableSlot& slot = SlotOf(inputs);
    std::lock_guard<std::mutex> lock(slot.mutex);
    return slot.table.lock();
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
        for (unsigned k = 0; k < corners; ++k)
            for (unsigned j = 0; j < outputs; ++j) block[k * outputs + j] = node[offset[k] + j];
    }
}

}  // namespace KELMA_NAMESPACE
