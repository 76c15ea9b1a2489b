// The kelma model file: one printer model (arrays, n, colorimetry, ink names
// and where the model came from) as a versioned, self-describing text file.
// This is the only reader and writer of the format; the Python module, the
// command line and the Octave files all go through it.
//
// Format, version 1 (UTF-8 text, one item per line, '#' lines are comments):
//
//   kelma-model 1
//   precision float32 | float64     how every number below is written
//   inks N                          4, 6 or 7
//   grid_points G                   2 or more
//   ink NAME                        N lines, ink 0 first
//   n VALUE                         Yule-Nielsen exponent
//   ink_set VALUE                   32-bit ink-set value, carried unchanged
//   media_relative yes | no
//   absolute_colorimetric yes | no
//   observer 2 | 10 | unknown       CIE 1931 2 degree or CIE 1964 10 degree
//   illuminant NAME                 A, D50, D65, E, F1, F2 or F11 (library tables)
//   illuminant spd V1 ... V31       a relative SPD at 400-700 nm, 10 nm
//   illuminant weights V1 ... V93   a lighting-matrix block of unknown origin:
//                                   X, Y, Z rows of 31 (observer folded in)
//   description TEXT                optional provenance lines: free text,
//   chart TEXT                        the measured chart the model was fitted to,
//   fit_method TEXT                   the fit (refined, classic, ...),
//   fit_patches COUNT                 the patches it used,
//   fit_error_de2000 MEAN P95 MAX     their CIEDE2000 (D50, 2 degree),
//   software TEXT                     the program that made the model
//   grid_levels                     then N lines of G levels
//   effective_ramps                 then N lines of 256 values
//   matrix_scheme                   then (G-1)^N x 31 lines of 2^N corner
//                                   coefficients: cell q = sum_i cell_i (G-1)^i
//                                   (ink 0 fastest), wavelength 400 + 10 w nm
//   ramp_weights                    optional: N lines of 256 float32 weights
//   checksum fnv1a64 HEX            FNV-1a (64 bit) of every byte before this
//                                   line (a CR before LF is not counted)
//   end
//
// At least one illuminant; one observer for all named and spd illuminants
// ("unknown" only when every illuminant is given as weights). Header lines
// come in any order, before grid_levels; the sections in the order above.
//
// Exactness. Numbers are written in the shortest decimal form that reads back
// to the same value in the file's precision (float32 or float64), so every
// value round-trips bit for bit. The model a file describes is always built
// from the float32 rounding of its values (grid, ramps, coefficients and n),
// as the prediction kernels read them, with the float constructor of
// ZKCSSE_KELMA_Data. A model whose ramp lookup table was built from float64
// ramps (ZKCSSE_KELMA_Data's double constructor) keeps that table in the
// ramp_weights section, which then replaces the weights the float32 ramps
// give; a file written from such a model reproduces it bit for bit.
//
// Failures. Reading a file that is missing, foreign, damaged, truncated, of a
// newer version or inconsistent throws ZKCModelFileError whose text names the
// file and, where there is one, the line and what is wrong. Check() (called
// by Format, Write and Model) throws ZKCModelFileError naming the field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/common/Types.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"

namespace KELMA_NAMESPACE {

struct ZKSPrinterModelArrays;
struct ZKSBuiltModel;

class KELMA_API ZKCModelFileError : public std::runtime_error {
public:
    explicit ZKCModelFileError(const std::string& message);
    ~ZKCModelFileError() override;
};

// The format version this library reads and writes.
constexpr unsigned int kModelFileVersion = 1;

enum MODELFILE_PRECISION : std::uint32_t {
    MODELFILE_FLOAT32 = 32,
    MODELFILE_FLOAT64 = 64,
};

// One illuminant of the model's colorimetric output.
struct KELMA_API ZKSModelIlluminant {
    // "A", "D50", "D65", "E", "F1", "F2", "F11" (the library's tables), "spd"
    // or "weights".
    std::string name;
    std::vector<double> spd;     // "spd": 31 relative values, 400-700 nm
    std::vector<float> weights;  // "weights": X, Y, Z rows of 31 values
};

// Where a model came from. Empty strings, 0 and NaN mean "not recorded".
struct KELMA_API ZKSModelProvenance {
    std::string description;
    std::string chart;
    std::string fitMethod;
    std::size_t fitPatches = 0;
    double fitErrorMean;
    double fitErrorP95;
    double fitErrorMax;
    std::string software;

    ZKSModelProvenance();
};

struct KELMA_API ZKSModelFile {
    MODELFILE_PRECISION precision = MODELFILE_FLOAT32;
    unsigned int numberOfInks = 0;
    unsigned int numberOfGridPoints = 0;
    std::vector<std::string> inkNames;   // N names, distinct, no control characters
    std::vector<double> gridPoints;      // N x G, the layouts of ZKCSSE_KELMA_Data
    std::vector<double> effectiveRamps;  // N x 256
    std::vector<double> matrixScheme;    // 31 x (G-1)^N x 2^N
    double n = 0.0;
    std::vector<float> rampWeights;      // empty, or N x 256 lookup weights (see above)
    INK_SET inkSet = INK_SET_SEVEN_INKS;
    bool isMediaRelative = false;
    bool printAbsolutColorimetric = false;
    unsigned int observer = OBSERVER_CIE1931_2;  // 2, 10, or 0 for "unknown"
    std::vector<ZKSModelIlluminant> illuminants;
    ZKSModelProvenance provenance;

    // Describes a model object: its float32 arrays and n, ink set, flags, its
    // lookup weights when they are not those of its float32 ramps, and its
    // lighting matrix, each illuminant block recognised as a named illuminant
    // under the 2 or 10 degree observer where it equals one bit for bit and
    // kept as weights otherwise. Ink names "ink 1", "ink 2", ...; no provenance
    // but the software. Model() of the result is SameModelContent with `model`.
    static ZKSModelFile Describe(const ZKCSSE_KELMA_Data& model);
    // Fitted arrays (float64 as fitted; the model is their float32 rounding,
    // as ZKSPrinterModelArrays::Model builds it) under D50 / 2 degree, ink set
    // with the N low bits set, neither flag; ink names "ink 1", ...
    static ZKSModelFile FromArrays(const ZKSPrinterModelArrays& arrays);
    // A fitted model with its provenance: FromArrays, the fit method, the
    // training patch count and CIEDE2000, `chart` and the ink names (empty:
    // "ink 1", ...).
    static ZKSModelFile FromBuiltModel(const ZKSBuiltModel& built, const std::string& chart,
                                       const std::vector<std::string>& inkNames);

    static ZKSModelFile Read(const std::string& path);
    // Parses file content; `source` names it in messages (a path, "<memory>").
    static ZKSModelFile Parse(const std::string& text, const std::string& source);
    // The file text (checks first).
    std::string Format() const;
    // Checks, formats and writes exactly `path`, atomically (WriteFileAtomically).
    void Write(const std::string& path) const;

    // Throws ZKCModelFileError "<what>: <problem>" for content that no model
    // file may hold: ink count, array sizes, non-finite or (float32) inexact
    // values, a model that CheckModelArrays refuses (grid, ramps, n, corner
    // sums: "model arrays: ..."), names, lookup weights, observer,
    // illuminants, provenance text.
    void Check() const;

    ZKCLighting_Matrix LightingMatrix() const;
    // The model (checks first): float32 rounding of the values, LightingMatrix(),
    // ink set, flags, ramp_weights applied.
    ZKCSSE_KELMA_Data Model() const;
};

// True when two model objects hold the same content bit for bit: ink and grid
// counts, spectral count, grid, ramps, coefficients, n, lighting matrix,
// media white point, ink set, both flags and the ramp lookup table.
KELMA_API bool SameModelContent(const ZKCSSE_KELMA_Data& a, const ZKCSSE_KELMA_Data& b);

// The embedded default press model (DefaultPressModel()) as a model file,
// with the provenance recorded when it was fitted. data/models holds it
// written out; the two are identical.
KELMA_API ZKSModelFile DefaultPressModelFile();

}  // namespace KELMA_NAMESPACE
