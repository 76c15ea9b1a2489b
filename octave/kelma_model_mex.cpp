// The MEX entry for model files: reads and writes kelma model files through
// the library (kelma/modelfile), hands out the embedded press model and the
// library's version. The checked front ends kelma_load_model,
// kelma_save_model, kelma_default_model and kelma_version call it.
//
//   s = kelma_model_mex ("read", path)
//   s = kelma_model_mex ("default")
//   kelma_model_mex ("write", path, s)
//   v = kelma_model_mex ("version")
//
// The struct s: grid (single G x N), ramps (single 256 x N), scheme (single
// column), n (single) -- the arrays kelma_predict takes, the float32 rounding
// of the file's values --, ink_names (1 x N cellstr), observer (2, 10, or 0
// for unknown), illuminants (1 x L cellstr: A, D50, D65, E, F1, F2, F11, spd,
// weights), illuminant_data (1 x L cell: [] for a named illuminant, 31 x 1
// double spd, 93 x 1 single weights), ink_set (double), media_relative and
// absolute_colorimetric (logical), precision ('float32' or 'float64'),
// ramp_weights (single 256 x N, or [] when the lookup table follows from the
// ramps), description, chart, fit_method, software (char), fit_patches
// (double, 0 unknown), fit_error_de2000 ([mean p95 max], or [] unknown).
// For "write", grid, ramps, scheme and n are required and share one class:
// single writes a float32 file, double a float64 file; every other field is
// optional (ink names "ink 1", ..., observer 2, illuminant D50, ink set with
// the N low bits set, flags false, no provenance).
//
// Every failure is raised as an Octave error after the library's objects are
// gone: kelma:model:file (a file that cannot be read or is not a valid model
// file; the text names the file), kelma:model:invalid (content no model file
// may hold; the text names the field), kelma:model:write (the file cannot be
// written), kelma:model:usage (wrong arguments).
#include <cmath>
#include <cstdint>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "mex.h"

#include "kelma/common/Version.h"
#include "kelma/modelfile/ZKSModelFile.h"

namespace {

using kelma::ZKSModelFile;
using kelma::ZKSModelIlluminant;

// A failure to report once every C++ object of the call is destroyed.
struct Failure {
    std::string id;
    std::string message;
};

[[noreturn]] void Usage(const std::string& message) { throw Failure{"kelma:model:usage", message}; }

std::string StringArg(const mxArray* a, const char* what) {
    if (a == nullptr || !mxIsChar(a) || (mxGetM(a) > 1 && mxGetN(a) > 0))
        Usage(std::string("kelma_model_mex: ") + what + " must be a character row");
    char* s = mxArrayToString(a);
    std::string out = s ? s : "";
    mxFree(s);
    return out;
}

const char* const kFields[] = {"grid",           "ramps",          "scheme",       "n",
                               "ink_names",      "observer",       "illuminants",  "illuminant_data",
                               "ink_set",        "media_relative", "absolute_colorimetric",
                               "precision",      "ramp_weights",   "description",  "chart",
                               "fit_method",     "fit_patches",    "fit_error_de2000", "software"};

mxArray* Singles(const std::vector<double>& v, std::size_t rows, std::size_t columns) {
    mxArray* a = mxCreateNumericMatrix(rows, columns, mxSINGLE_CLASS, mxREAL);
    float* p = static_cast<float*>(mxGetData(a));
    for (std::size_t k = 0; k < v.size(); ++k) p[k] = static_cast<float>(v[k]);
    return a;
}

mxArray* CellOfStrings(const std::vector<std::string>& names) {
    mxArray* c = mxCreateCellMatrix(1, names.size());
    for (std::size_t i = 0; i < names.size(); ++i) mxSetCell(c, i, mxCreateString(names[i].c_str()));
    return c;
}

mxArray* ToStruct(const ZKSModelFile& f) {
    const std::size_t N = f.numberOfInks, G = f.numberOfGridPoints;
    mxArray* s = mxCreateStructMatrix(1, 1, sizeof kFields / sizeof kFields[0], const_cast<const char**>(kFields));
    // The file lists each ink's values contiguously: they are the columns here.
    mxSetField(s, 0, "grid", Singles(f.gridPoints, G, N));
    mxSetField(s, 0, "ramps", Singles(f.effectiveRamps, 256, N));
    mxSetField(s, 0, "scheme", Singles(f.matrixScheme, f.matrixScheme.size(), 1));
    mxSetField(s, 0, "n", Singles(std::vector<double>{f.n}, 1, 1));
    mxSetField(s, 0, "ink_names", CellOfStrings(f.inkNames));
    mxSetField(s, 0, "observer", mxCreateDoubleScalar(f.observer));
    std::vector<std::string> names;
    mxArray* data = mxCreateCellMatrix(1, f.illuminants.size());
    for (std::size_t k = 0; k < f.illuminants.size(); ++k) {
        const ZKSModelIlluminant& il = f.illuminants[k];
        names.push_back(il.name);
        if (il.name == "spd") {
            mxArray* spd = mxCreateDoubleMatrix(il.spd.size(), 1, mxREAL);
            std::copy(il.spd.begin(), il.spd.end(), mxGetPr(spd));
            mxSetCell(data, k, spd);
        } else if (il.name == "weights") {
            mxArray* w = mxCreateNumericMatrix(il.weights.size(), 1, mxSINGLE_CLASS, mxREAL);
            std::copy(il.weights.begin(), il.weights.end(), static_cast<float*>(mxGetData(w)));
            mxSetCell(data, k, w);
        } else {
            mxSetCell(data, k, mxCreateDoubleMatrix(0, 0, mxREAL));
        }
    }
    mxSetField(s, 0, "illuminants", CellOfStrings(names));
    mxSetField(s, 0, "illuminant_data", data);
    mxSetField(s, 0, "ink_set", mxCreateDoubleScalar(static_cast<double>(static_cast<std::uint32_t>(f.inkSet))));
    mxSetField(s, 0, "media_relative", mxCreateLogicalScalar(f.isMediaRelative));
    mxSetField(s, 0, "absolute_colorimetric", mxCreateLogicalScalar(f.printAbsolutColorimetric));
    mxSetField(s, 0, "precision",
               mxCreateString(f.precision == kelma::MODELFILE_FLOAT32 ? "float32" : "float64"));
    if (f.rampWeights.empty()) {
        mxSetField(s, 0, "ramp_weights", mxCreateNumericMatrix(0, 0, mxSINGLE_CLASS, mxREAL));
    } else {
        mxArray* w = mxCreateNumericMatrix(256, N, mxSINGLE_CLASS, mxREAL);
        std::copy(f.rampWeights.begin(), f.rampWeights.end(), static_cast<float*>(mxGetData(w)));
        mxSetField(s, 0, "ramp_weights", w);
    }
    const kelma::ZKSModelProvenance& p = f.provenance;
    mxSetField(s, 0, "description", mxCreateString(p.description.c_str()));
    mxSetField(s, 0, "chart", mxCreateString(p.chart.c_str()));
    mxSetField(s, 0, "fit_method", mxCreateString(p.fitMethod.c_str()));
    mxSetField(s, 0, "fit_patches", mxCreateDoubleScalar(static_cast<double>(p.fitPatches)));
    if (std::isnan(p.fitErrorMean)) {
        mxSetField(s, 0, "fit_error_de2000", mxCreateDoubleMatrix(0, 0, mxREAL));
    } else {
        mxArray* e = mxCreateDoubleMatrix(1, 3, mxREAL);
        mxGetPr(e)[0] = p.fitErrorMean;
        mxGetPr(e)[1] = p.fitErrorP95;
        mxGetPr(e)[2] = p.fitErrorMax;
        mxSetField(s, 0, "fit_error_de2000", e);
    }
    mxSetField(s, 0, "software", mxCreateString(p.software.c_str()));
    return s;
}

// ---- "write": the struct's fields, checked for class and shape here; the
// library checks the content (Check) and names the field that is wrong.

bool IsRealNumeric(const mxArray* a) {
    return (mxIsSingle(a) || mxIsDouble(a)) && !mxIsComplex(a) && !mxIsSparse(a);
}

const mxArray* Field(const mxArray* s, const char* name, bool required) {
    const mxArray* f = mxGetField(s, 0, name);
    if (f == nullptr && required)
        Usage(std::string("kelma_save_model: the model struct needs the field ") + name);
    return f;
}

std::vector<double> Values(const mxArray* a, const char* name) {
    if (!IsRealNumeric(a))
        Usage(std::string("kelma_save_model: ") + name + " must be a real single or double array");
    const std::size_t count = mxGetNumberOfElements(a);
    std::vector<double> v(count);
    if (mxIsSingle(a)) {
        const float* p = static_cast<const float*>(mxGetData(a));
        for (std::size_t k = 0; k < count; ++k) v[k] = p[k];
    } else {
        const double* p = mxGetPr(a);
        std::copy(p, p + count, v.begin());
    }
    return v;
}

double Scalar(const mxArray* a, const char* name) {
    if (!IsRealNumeric(a) || mxGetNumberOfElements(a) != 1)
        Usage(std::string("kelma_save_model: ") + name + " must be a real scalar");
    return Values(a, name)[0];
}

bool Flag(const mxArray* a, const char* name) {
    if ((!mxIsLogical(a) && !IsRealNumeric(a)) || mxGetNumberOfElements(a) != 1)
        Usage(std::string("kelma_save_model: ") + name + " must be a logical scalar");
    return mxIsLogical(a) ? mxIsLogicalScalarTrue(a) : mxGetScalar(a) != 0.0;
}

std::string Text(const mxArray* a, const char* name) {
    if (mxGetNumberOfElements(a) == 0) return "";
    return StringArg(a, name);
}

std::vector<std::string> Strings(const mxArray* a, const char* name) {
    if (!mxIsCell(a)) Usage(std::string("kelma_save_model: ") + name + " must be a cell array of character rows");
    std::vector<std::string> out;
    for (std::size_t k = 0; k < mxGetNumberOfElements(a); ++k) out.push_back(StringArg(mxGetCell(a, k), name));
    return out;
}

ZKSModelFile FromStruct(const mxArray* s) {
    if (s == nullptr || !mxIsStruct(s) || mxGetNumberOfElements(s) != 1)
        Usage("kelma_save_model: the model must be a 1 x 1 struct (as kelma_load_model returns)");
    const mxArray* grid = Field(s, "grid", true);
    const mxArray* ramps = Field(s, "ramps", true);
    const mxArray* scheme = Field(s, "scheme", true);
    const mxArray* n = Field(s, "n", true);
    for (const mxArray* a : {grid, ramps, scheme, n})
        if (!IsRealNumeric(a)) Usage("kelma_save_model: grid, ramps, scheme and n must be real single or double arrays");
    const bool single = mxIsSingle(grid);
    if (mxIsSingle(ramps) != single || mxIsSingle(scheme) != single || mxIsSingle(n) != single)
        Usage("kelma_save_model: grid, ramps, scheme and n must share one class (single writes float32, double "
              "float64)");
    if (mxGetNumberOfDimensions(grid) != 2)
        Usage("kelma_save_model: grid must be a G x N matrix (one column per ink)");
    const std::size_t G = mxGetM(grid), N = mxGetN(grid);
    if (mxGetNumberOfDimensions(ramps) != 2 || mxGetM(ramps) != 256 || mxGetN(ramps) != N)
        Usage("kelma_save_model: ramps must be 256 x N, N the columns of grid");

    ZKSModelFile f;
    f.precision = single ? kelma::MODELFILE_FLOAT32 : kelma::MODELFILE_FLOAT64;
    f.numberOfInks = static_cast<unsigned int>(N);
    f.numberOfGridPoints = static_cast<unsigned int>(G);
    f.gridPoints = Values(grid, "grid");
    f.effectiveRamps = Values(ramps, "ramps");
    f.matrixScheme = Values(scheme, "scheme");
    f.n = Scalar(n, "n");
    for (std::size_t i = 0; i < N; ++i) f.inkNames.push_back("ink " + std::to_string(i + 1));
    f.inkSet = static_cast<kelma::INK_SET>(N < 32 ? (1u << N) - 1u : 0xFFFFFFFFu);
    f.illuminants.push_back(ZKSModelIlluminant{"D50", {}, {}});

    if (const mxArray* a = Field(s, "ink_names", false)) f.inkNames = Strings(a, "ink_names");
    if (const mxArray* a = Field(s, "observer", false)) {
        const double v = Scalar(a, "observer");
        if (v != 0.0 && v != 2.0 && v != 10.0) Usage("kelma_save_model: observer must be 2, 10 or 0 (unknown)");
        f.observer = static_cast<unsigned int>(v);
    }
    if (const mxArray* a = Field(s, "illuminants", false)) {
        const std::vector<std::string> names = Strings(a, "illuminants");
        const mxArray* data = Field(s, "illuminant_data", false);
        if (data != nullptr && (!mxIsCell(data) || mxGetNumberOfElements(data) != names.size()))
            Usage("kelma_save_model: illuminant_data must be a cell with one entry per illuminant");
        f.illuminants.clear();
        for (std::size_t k = 0; k < names.size(); ++k) {
            ZKSModelIlluminant il{names[k], {}, {}};
            const mxArray* d = data != nullptr ? mxGetCell(data, k) : nullptr;
            if (names[k] == "spd" || names[k] == "weights") {
                if (d == nullptr || !IsRealNumeric(d))
                    Usage("kelma_save_model: illuminant " + std::to_string(k + 1) + " (" + names[k] +
                          ") needs its values in illuminant_data");
                const std::vector<double> v = Values(d, "illuminant_data");
                if (names[k] == "spd") il.spd = v;
                else il.weights.assign(v.begin(), v.end());
            }
            f.illuminants.push_back(il);
        }
    }
    if (const mxArray* a = Field(s, "ink_set", false)) {
        const double v = Scalar(a, "ink_set");
        if (!(v >= 0.0 && v <= 4294967295.0) || v != std::floor(v))
            Usage("kelma_save_model: ink_set must be a whole number 0..2^32-1");
        f.inkSet = static_cast<kelma::INK_SET>(static_cast<std::uint32_t>(v));
    }
    if (const mxArray* a = Field(s, "media_relative", false)) f.isMediaRelative = Flag(a, "media_relative");
    if (const mxArray* a = Field(s, "absolute_colorimetric", false))
        f.printAbsolutColorimetric = Flag(a, "absolute_colorimetric");
    if (const mxArray* a = Field(s, "ramp_weights", false)) {
        if (mxGetNumberOfElements(a) != 0) {
            if (!mxIsSingle(a)) Usage("kelma_save_model: ramp_weights must be single 256 x N (or empty)");
            const float* p = static_cast<const float*>(mxGetData(a));
            f.rampWeights.assign(p, p + mxGetNumberOfElements(a));
        }
    }
    kelma::ZKSModelProvenance& p = f.provenance;
    if (const mxArray* a = Field(s, "description", false)) p.description = Text(a, "description");
    if (const mxArray* a = Field(s, "chart", false)) p.chart = Text(a, "chart");
    if (const mxArray* a = Field(s, "fit_method", false)) p.fitMethod = Text(a, "fit_method");
    if (const mxArray* a = Field(s, "software", false)) p.software = Text(a, "software");
    if (const mxArray* a = Field(s, "fit_patches", false)) {
        const double v = Scalar(a, "fit_patches");
        if (!(v >= 0.0 && v < 1e12) || v != std::floor(v))
            Usage("kelma_save_model: fit_patches must be a whole number >= 0");
        p.fitPatches = static_cast<std::size_t>(v);
    }
    if (const mxArray* a = Field(s, "fit_error_de2000", false)) {
        if (mxGetNumberOfElements(a) != 0) {
            if (!IsRealNumeric(a) || mxGetNumberOfElements(a) != 3)
                Usage("kelma_save_model: fit_error_de2000 must be [mean p95 max] (or empty)");
            const std::vector<double> e = Values(a, "fit_error_de2000");
            p.fitErrorMean = e[0];
            p.fitErrorP95 = e[1];
            p.fitErrorMax = e[2];
        }
    }
    return f;
}

void Run(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    if (nrhs < 1) Usage("kelma_model_mex: expected a command: read, write, default or version");
    const std::string command = StringArg(prhs[0], "the command");
    auto arguments = [&](int count, const char* form) {
        if (nrhs != count) Usage(std::string("kelma_model_mex: usage: ") + form);
    };
    if (command == "version") {
        arguments(1, "kelma_model_mex (\"version\")");
        plhs[0] = mxCreateString(kelma::LibraryVersion());
    } else if (command == "default") {
        arguments(1, "kelma_model_mex (\"default\")");
        plhs[0] = ToStruct(kelma::DefaultPressModelFile());
    } else if (command == "read") {
        arguments(2, "kelma_model_mex (\"read\", path)");
        const std::string path = StringArg(prhs[1], "the path");
        try {
            plhs[0] = ToStruct(ZKSModelFile::Read(path));
        } catch (const kelma::ZKCModelFileError& e) {
            throw Failure{"kelma:model:file", e.what()};
        }
    } else if (command == "write") {
        arguments(3, "kelma_model_mex (\"write\", path, model)");
        const std::string path = StringArg(prhs[1], "the path");
        const ZKSModelFile f = FromStruct(prhs[2]);
        try {
            f.Check();
        } catch (const kelma::ZKCModelFileError& e) {
            throw Failure{"kelma:model:invalid", std::string("kelma_save_model: ") + e.what()};
        }
        try {
            f.Write(path);
        } catch (const kelma::ZKCModelFileError& e) {
            throw Failure{"kelma:model:write", e.what()};
        }
    } else {
        Usage("kelma_model_mex: unknown command '" + command + "' (read, write, default or version)");
    }
    (void)nlhs;
}

}  // namespace

extern "C" void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    std::string id, message;
    try {
        Run(nlhs, plhs, nrhs, prhs);
        return;
    } catch (const Failure& f) {
        id = f.id;
        message = f.message;
    } catch (const std::bad_alloc&) {
        id = "kelma:nomemory";
        message = "out of memory";
    } catch (const std::exception& e) {
        id = "kelma:failure";
        message = e.what();
    } catch (const char* text) {
        id = "kelma:library";
        message = text;
    } catch (...) {
        id = "kelma:failure";
        message = "unknown failure";
    }
    mexErrMsgIdAndTxt(id.c_str(), "%s", message.c_str());
}
