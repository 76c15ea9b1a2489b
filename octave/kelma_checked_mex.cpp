// The checking MEX entry of the Octave/MATLAB front end, beside the raw
// gateway (kelma_mex, which reads its arrays unchecked). Every operation
// checks its arguments (class, size, values) and the model with the library's
// CheckModelArrays before anything is built, and reports a problem as one
// catchable host error. The .m files call it; users call the .m files.
//
//   spectra = kelma_checked_mex ("spectra", grid, ramps, scheme, n, inks)
//   lab     = kelma_checked_mex ("lab", grid, ramps, scheme, n, inks, illuminant, observer, paper)
//   xyz     = kelma_checked_mex ("xyz", grid, ramps, scheme, n, inks, illuminant, observer, paper)
//   [stats, deltaE, patches] =
//             kelma_checked_mex ("evaluate", grid, ramps, scheme, n, chartFile, illuminant, observer)
//
// grid single G x N, ramps single 256 x N, scheme single, n single scalar,
// inks uint8 N x count, illuminant a name ("D50"), observer 2 or 10, paper
// logical. spectra: single 32 x count; lab, xyz: double 3 x count; stats:
// double 5 x 3 (count, mean, median, p95, max of all patches, K = 0, K > 0).
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "mex.h"

#include "kelma/kelma.h"

namespace {

// A problem with the arguments: raised with this identifier and text.
struct ArgumentError {
    std::string id;
    std::string text;
};

[[noreturn]] void Fail(const std::string& id, const std::string& text) { throw ArgumentError{id, text}; }

std::string Text(const mxArray* a, const char* name) {
    if (!mxIsChar(a)) Fail("kelma:argument", std::string(name) + " must be a character string");
    char* s = mxArrayToString(a);
    if (s == nullptr) Fail("kelma:argument", std::string(name) + " must be a character string");
    std::string r(s);
    mxFree(s);
    return r;
}

void ExpectClass(const mxArray* a, mxClassID id, const char* className, const char* name) {
    if (mxGetClassID(a) != id || mxIsComplex(a) || mxIsSparse(a))
        Fail("kelma:class", std::string(name) + " must be a real " + className + " array, got " + mxGetClassName(a));
}

const float* Singles(const mxArray* a, const char* name) {
    ExpectClass(a, mxSINGLE_CLASS, "single", name);
    return static_cast<const float*>(mxGetData(a));
}

// The model of arguments 1..4, checked by the library, built under one
// illuminant and observer.
kelma::ZKCSSE_KELMA_Data BuildModel(const mxArray* const* in, const std::string& illuminant, unsigned observer) {
    const float* grid = Singles(in[0], "grid");
    const float* ramps = Singles(in[1], "ramps");
    const float* scheme = Singles(in[2], "scheme");
    const float* n = Singles(in[3], "n");
    if (mxGetNumberOfDimensions(in[0]) != 2 || mxIsEmpty(in[0])) Fail("kelma:size", "grid must be a G x N matrix");
    const std::size_t G = mxGetM(in[0]), N = mxGetN(in[0]);
    if (mxGetM(in[1]) != 256 || mxGetN(in[1]) != N || mxGetNumberOfDimensions(in[1]) != 2)
        Fail("kelma:size", "ramps must be 256 x " + std::to_string(N) + " (one column per ink)");
    if (mxGetNumberOfElements(in[3]) != 1) Fail("kelma:size", "n must be a scalar");
    const std::string problem =
        kelma::CheckModelArrays(N, G, grid, ramps, scheme, mxGetNumberOfElements(in[2]), n[0]);
    if (!problem.empty()) Fail("kelma:model", "not a usable model: " + problem);
    std::unique_ptr<kelma::ZKCIlluminant_Base> spd = kelma::MakeStandardIlluminant(illuminant);
    if (!spd) Fail("kelma:argument", "unknown illuminant '" + illuminant + "' (A, D50, D65, E, F1, F2, F11)");
    if (observer != 2 && observer != 10) Fail("kelma:argument", "observer must be 2 or 10");
    const kelma::ZKCObserver o(static_cast<kelma::OBSERVER_TYPE>(observer));
    const kelma::ZKCLighting_Matrix matrix(o, spd.get());
    kelma::ZKCSSE_KELMA_Data model(static_cast<unsigned>(N), static_cast<unsigned>(G), grid, ramps, scheme, n[0],
                                   matrix, kelma::INK_SET_SEVEN_INKS, false, false, kelma::kSpectralValues);
    const std::string colorimetry = kelma::CheckModelLighting(model);
    if (!colorimetry.empty()) Fail("kelma:model", "not a usable model under " + illuminant + ": " + colorimetry);
    return model;
}

const unsigned char* Inks(const mxArray* a, std::size_t N, std::size_t* count) {
    ExpectClass(a, mxUINT8_CLASS, "uint8", "inks");
    if (mxGetNumberOfDimensions(a) != 2 || mxGetM(a) != N)
        Fail("kelma:size", "inks must be " + std::to_string(N) + " x count (one sample per column)");
    *count = mxGetN(a);
    if (*count == 0) Fail("kelma:empty", "inks holds no sample");
    if (*count > 0xFFFFFFFFu) Fail("kelma:size", "inks holds more than 2^32 - 1 samples; split the batch");
    return static_cast<const unsigned char*>(mxGetData(a));
}

unsigned Observer(const mxArray* a) {
    if (!mxIsNumeric(a) || mxGetNumberOfElements(a) != 1) Fail("kelma:argument", "observer must be 2 or 10");
    const double v = mxGetScalar(a);
    if (v != 2.0 && v != 10.0) Fail("kelma:argument", "observer must be 2 or 10");
    return static_cast<unsigned>(v);
}

bool Flag(const mxArray* a, const char* name) {
    if ((!mxIsLogical(a) && !mxIsNumeric(a)) || mxGetNumberOfElements(a) != 1)
        Fail("kelma:argument", std::string(name) + " must be true or false");
    return mxGetScalar(a) != 0.0;
}

void Spectra(int nlhs, mxArray** out, int nrhs, const mxArray* const* in) {
    if (nrhs != 5 || nlhs > 1) Fail("kelma:nargin", "spectra takes grid, ramps, scheme, n, inks");
    const kelma::ZKCSSE_KELMA_Data model = BuildModel(in, "D50", 2);
    std::size_t count = 0;
    const unsigned char* inks = Inks(in[4], model.NumberOfInks(), &count);
    mwSize dims[2] = {32, static_cast<mwSize>(count)};
    out[0] = mxCreateNumericArray(2, dims, mxSINGLE_CLASS, mxREAL);
    float* spectra = static_cast<float*>(mxGetData(out[0]));
    kelma::ZKCSSE_KELMA_Thread driver(model, static_cast<unsigned>(count), const_cast<unsigned char*>(inks), spectra);
    driver.Wait();
}

void Colorimetry(int nlhs, mxArray** out, int nrhs, const mxArray* const* in, bool lab) {
    if (nrhs != 8 || nlhs > 1) Fail("kelma:nargin", "lab and xyz take grid, ramps, scheme, n, inks, illuminant, observer, paper");
    const kelma::ZKCSSE_KELMA_Data model = BuildModel(in, Text(in[5], "illuminant"), Observer(in[6]));
    const bool paper = Flag(in[7], "paper");
    std::size_t count = 0;
    const unsigned char* inks = Inks(in[4], model.NumberOfInks(), &count);
    out[0] = mxCreateDoubleMatrix(3, count, mxREAL);
    double* o = mxGetPr(out[0]);
    kelma::PredictColorimetry(model, count, inks, 0, paper, lab ? nullptr : o, lab ? o : nullptr);
}

void Evaluate(int nlhs, mxArray** out, int nrhs, const mxArray* const* in) {
    if (nrhs != 7 || nlhs > 3) Fail("kelma:nargin", "evaluate takes grid, ramps, scheme, n, chart file, illuminant, observer");
    const kelma::ZKCSSE_KELMA_Data model = BuildModel(in, Text(in[5], "illuminant"), Observer(in[6]));
    const std::string path = Text(in[4], "chart file");
    const kelma::ZKCMeasurementFile file(path, kelma::MEASUREMENT_CONTENT_SPECTRA | kelma::MEASUREMENT_CONTENT_DEVICE);
    const kelma::ZKSModelChart chart = kelma::ChartFromMeasurementFile(file);
    if (chart.numberOfInks != model.NumberOfInks())
        Fail("kelma:argument", path + " has " + std::to_string(chart.numberOfInks) + " device channels; the model has " +
                                   std::to_string(model.NumberOfInks()) + " inks");
    kelma::ZKSModelEvaluation e;
    try {
        e = kelma::EvaluateModel(model, chart);
    } catch (const kelma::ZKCModelBuildingError& error) {
        // The ink counts agree, so what remains is the chart's content:
        // device values outside [0, 100] % or implausible spectra.
        Fail("kelma:chart", path + ": " + error.what());
    }
    out[0] = mxCreateDoubleMatrix(5, 3, mxREAL);
    double* s = mxGetPr(out[0]);
    const kelma::ZKSStatistics* rows[3] = {&e.all, &e.blackZero, &e.blackPositive};
    for (int c = 0; c < 3; ++c) {
        s[5 * c + 0] = static_cast<double>(rows[c]->count);
        s[5 * c + 1] = rows[c]->mean;
        s[5 * c + 2] = rows[c]->median;
        s[5 * c + 3] = rows[c]->p95;
        s[5 * c + 4] = rows[c]->max;
    }
    if (nlhs > 1) {
        out[1] = mxCreateDoubleMatrix(e.deltaE.size(), 1, mxREAL);
        std::copy(e.deltaE.begin(), e.deltaE.end(), mxGetPr(out[1]));
    }
    if (nlhs > 2) {
        out[2] = mxCreateDoubleMatrix(e.patches.size(), 1, mxREAL);
        double* p = mxGetPr(out[2]);
        for (std::size_t k = 0; k < e.patches.size(); ++k) p[k] = static_cast<double>(e.patches[k] + 1);
    }
}

}  // namespace

// Every failure is caught here, after the operation's objects are gone, and
// raised through the host's error function (a C++ exception must not cross
// into the host).
extern "C" void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    std::string id = "kelma:failure", message;
    try {
        if (nrhs < 1) Fail("kelma:nargin", "kelma_checked_mex needs an operation name");
        const std::string op = Text(prhs[0], "the operation");
        if (op == "spectra")
            Spectra(nlhs, plhs, nrhs - 1, prhs + 1);
        else if (op == "lab" || op == "xyz")
            Colorimetry(nlhs, plhs, nrhs - 1, prhs + 1, op == "lab");
        else if (op == "evaluate")
            Evaluate(nlhs, plhs, nrhs - 1, prhs + 1);
        else
            Fail("kelma:argument", "unknown operation '" + op + "'");
        return;
    } catch (const ArgumentError& e) {
        id = e.id;
        message = e.text;
    } catch (const char* text) {
        const kelma::ZKSLibraryError e = kelma::FindLibraryError(text);
        id = e.kind == kelma::LIBRARY_ERROR_ARGUMENT ? "kelma:library:argument" : "kelma:library:internal";
        message = kelma::ExplainLibraryError(text);
    } catch (const std::bad_alloc&) {
        id = "kelma:nomemory";
        message = "out of memory";
    } catch (const kelma::ZKCMeasurementError& e) {
        id = "kelma:chart";
        message = e.what();
    } catch (const std::exception& e) {
        message = e.what();
    } catch (...) {
        message = "unknown failure";
    }
    mexErrMsgIdAndTxt(id.c_str(), "%s", message.c_str());
}
