// Fits a printer model to a measured chart and writes it as a kelma model file
// and, optionally, as the generated C++ source of the library's embedded
// default model (the same model, the same provenance: DefaultPressModelFile()
// of a library built from that source formats to the model file byte for
// byte); or reports held-out accuracy of the classic and refined fits.
//
//   kelma_fit_model [options]
//     --chart FILE       CGATS chart with device values and spectra
//                        (default: data/aptec_pc10/APTEC_PC10_CardBoard_2023_v1_Spectral.txt)
//     --grid P,P,...     grid levels in percent for every ink (default 0,40,100)
//     --method M         refined (default) or classic
//     --model FILE       write the model file (kelma/modelfile/ZKSModelFile.h)
//     --source FILE      write the embedded-model C++ source
//     --validate         two-fold held-out accuracy of both fits instead
//
// Regenerating the embedded default model (from the repository root, after a build):
//   build/tools/kelma_fit_model --model data/models/aptec_pc10_cmyk.kelma
//       --source kelma/modelbuilding/DefaultPressModel_Data.cpp
// (one command line), then rebuild the library.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <sstream>
#include <string>
#include <vector>

#include "kelma/common/AtomicFile.h"
#include "kelma/common/Version.h"
#include "kelma/measurement/ZKCMeasurementFile.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"
#include "kelma/modelfile/ZKSModelFile.h"

using namespace kelma;

namespace {

struct Arguments {
    std::string chart = std::string(KELMA_SOURCE_DIR) + "/data/aptec_pc10/APTEC_PC10_CardBoard_2023_v1_Spectral.txt";
    std::vector<double> grid{0.0, 40.0, 100.0};
    MODELFIT_METHOD method = MODELFIT_REFINED;
    std::string model, source;
    bool validate = false;
};

[[noreturn]] void Usage(const char* problem) {
    std::fprintf(stderr, "kelma_fit_model: %s\n(see the comment at the top of tools/kelma_fit_model.cpp)\n", problem);
    std::exit(2);
}

Arguments Parse(int argc, char** argv) {
    Arguments a;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) Usage(("missing value after " + arg).c_str());
            return argv[++i];
        };
        if (arg == "--chart") {
            a.chart = value();
        } else if (arg == "--grid") {
            a.grid.clear();
            std::stringstream list(value());
            std::string item;
            while (std::getline(list, item, ',')) a.grid.push_back(std::atof(item.c_str()));
        } else if (arg == "--method") {
            const std::string m = value();
            if (m == "refined") a.method = MODELFIT_REFINED;
            else if (m == "classic") a.method = MODELFIT_CLASSIC;
            else Usage("--method is refined or classic");
        } else if (arg == "--model") {
            a.model = value();
        } else if (arg == "--source") {
            a.source = value();
        } else if (arg == "--validate") {
            a.validate = true;
        } else {
            Usage(("unknown argument " + arg).c_str());
        }
    }
    return a;
}

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

const char* MethodName(MODELFIT_METHOD m) { return m == MODELFIT_REFINED ? "refined" : "classic"; }

void PrintStatistics(const char* label, const std::vector<double>& deltaE) {
    const ZKSStatistics s = Summarize(deltaE);
    std::printf("    %-6s %4zu patches  mean %.3f  p95 %.3f  max %.3f\n", label, s.count, s.mean, s.p95, s.max);
}

int Validate(const ZKCModelBuilder& builder, const Arguments& args) {
    const ZKSValidationSplit split = builder.ValidationSplit(args.grid);
    std::printf("held-out validation: %zu grid patches in every training set, halves of %zu and %zu patches\n",
                split.gridPatches.size(), split.half[0].size(), split.half[1].size());
    const unsigned int inks = builder.Chart().numberOfInks;
    for (MODELFIT_METHOD method : {MODELFIT_CLASSIC, MODELFIT_REFINED}) {
        std::vector<double> all, noBlack, black;
        for (unsigned int fold = 0; fold < 2; ++fold) {
            ZKSModelBuildOptions options;
            options.gridPercent = args.grid;
            options.method = method;
            options.trainingPatches = split.Training(fold);
            const auto start = std::chrono::steady_clock::now();
            const ZKSBuiltModel built = builder.Build(options);
            const double seconds = Seconds(start);
            const std::vector<std::size_t>& test = split.half[1 - fold];
            const std::vector<double> deltaE = PredictionDeltaE00(built.model, builder.Chart(), test);
            std::printf("  %s fold %u: n %.4f, %u iterations, %.2f s, training mean %.3f\n", MethodName(method), fold,
                        built.model.n, built.iterations, seconds, built.fitError.mean);
            std::vector<double> foldNoBlack, foldBlack;
            for (std::size_t k = 0; k < test.size(); ++k) {
                const bool hasBlack = inks == 4 && builder.DigitalLevels()[test[k] * inks + 3] != 0;
                (hasBlack ? foldBlack : foldNoBlack).push_back(deltaE[k]);
            }
            PrintStatistics("test", deltaE);
            PrintStatistics("K = 0", foldNoBlack);
            PrintStatistics("K > 0", foldBlack);
            all.insert(all.end(), deltaE.begin(), deltaE.end());
            noBlack.insert(noBlack.end(), foldNoBlack.begin(), foldNoBlack.end());
            black.insert(black.end(), foldBlack.begin(), foldBlack.end());
        }
        std::printf("  %s, both folds:\n", MethodName(method));
        PrintStatistics("test", all);
        PrintStatistics("K = 0", noBlack);
        PrintStatistics("K > 0", black);
    }
    return 0;
}

std::string Join(const std::vector<double>& v, const char* format, std::size_t perLine, const char* indent) {
    std::string s;
    char buf[64];
    for (std::size_t k = 0; k < v.size(); ++k) {
        if (k % perLine == 0) s += indent;
        std::snprintf(buf, sizeof buf, format, v[k]);
        s += buf;
        s += (k + 1 == v.size() || (k + 1) % perLine == 0) ? "\n" : " ";
    }
    return s;
}

std::string FileName(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

// The model file of a fit: provenance as recorded in both outputs.
ZKSModelFile ModelFile(const ZKSBuiltModel& built, const Arguments& args, const ZKSModelChart& chart) {
    ZKSModelFile f = ZKSModelFile::FromBuiltModel(built, FileName(args.chart), chart.inkNames);
    std::string grid;
    for (double g : args.grid) grid += (grid.empty() ? "" : ", ") + std::to_string(static_cast<int>(g));
    f.provenance.description = "grid {" + grid + "} % for every ink";
    f.provenance.software = std::string("tools/kelma_fit_model (kelma ") + KELMA_VERSION + ")";
    return f;
}

// Generated source: the arrays as exact hexadecimal double literals, and the
// provenance of the model file.
std::string Source(const ZKSModelFile& f) {
    std::string text = "// Generated by tools/kelma_fit_model; do not edit. Regenerate with the command in\n"
                       "// tools/kelma_fit_model.cpp; data/models/aptec_pc10_cmyk.kelma is the same model.\n";
    text += "#include \"kelma/modelbuilding/DefaultPressModelData.h\"\n\n"
            "namespace KELMA_NAMESPACE {\nnamespace modelbuilding {\n\n";
    char buf[512];
    std::snprintf(buf, sizeof buf,
                  "const unsigned int kDefaultPressInks = %u;\nconst unsigned int kDefaultPressGridPoints = %u;\n"
                  "const double kDefaultPressN = %a;\n\n",
                  f.numberOfInks, f.numberOfGridPoints, f.n);
    text += buf;
    text += "const double kDefaultPressGridLevels[] = {\n" + Join(f.gridPoints, "%a,", 8, "    ") + "};\n\n";
    text += "const double kDefaultPressEffectiveRamps[] = {\n" + Join(f.effectiveRamps, "%a,", 4, "    ") + "};\n\n";
    text += "const double kDefaultPressMatrixScheme[] = {\n" + Join(f.matrixScheme, "%a,", 4, "    ") + "};\n\n";
    std::snprintf(buf, sizeof buf, "const std::size_t kDefaultPressMatrixSchemeSize = %zu;\n\n", f.matrixScheme.size());
    text += buf;
    text += "const char* const kDefaultPressInkNames[] = {";
    for (std::size_t i = 0; i < f.inkNames.size(); ++i) text += (i ? ", " : "") + Quoted(f.inkNames[i]);
    text += "};\n";
    const ZKSModelProvenance& p = f.provenance;
    text += "const char* const kDefaultPressDescription = " + Quoted(p.description) + ";\n";
    text += "const char* const kDefaultPressChart = " + Quoted(p.chart) + ";\n";
    text += "const char* const kDefaultPressFitMethod = " + Quoted(p.fitMethod) + ";\n";
    std::snprintf(buf, sizeof buf,
                  "const std::size_t kDefaultPressFitPatches = %zu;\nconst double kDefaultPressFitErrorMean = %a;\n"
                  "const double kDefaultPressFitErrorP95 = %a;\nconst double kDefaultPressFitErrorMax = %a;\n",
                  p.fitPatches, p.fitErrorMean, p.fitErrorP95, p.fitErrorMax);
    text += buf;
    text += "const char* const kDefaultPressSoftware = " + Quoted(p.software) + ";\n\n";
    text += "}  // namespace modelbuilding\n}  // namespace KELMA_NAMESPACE\n";
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    const Arguments args = Parse(argc, argv);
    try {
        const ZKCMeasurementFile file(args.chart, MEASUREMENT_CONTENT_SPECTRA | MEASUREMENT_CONTENT_DEVICE);
        const ZKCModelBuilder builder(ChartFromMeasurementFile(file));
        if (args.validate) return Validate(builder, args);

        ZKSModelBuildOptions options;
        options.gridPercent = args.grid;
        options.method = args.method;
        const auto start = std::chrono::steady_clock::now();
        const ZKSBuiltModel built = builder.Build(options);
        std::printf("%s fit of %zu patches in %.2f s: n %.4f, %u iterations, training CIEDE2000 mean %.3f p95 %.3f "
                    "max %.3f\n",
                    MethodName(args.method), built.trainingPatches.size(), Seconds(start), built.model.n,
                    built.iterations, built.fitError.mean, built.fitError.p95, built.fitError.max);
        const ZKSModelFile modelFile = ModelFile(built, args, builder.Chart());
        if (!args.model.empty()) modelFile.Write(args.model);
        if (!args.source.empty()) WriteFileAtomically(args.source, Source(modelFile));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kelma_fit_model: %s\n", e.what());
        return 1;
    } catch (const char* e) {
        std::fprintf(stderr, "kelma_fit_model: %s\n", e);
        return 1;
    }
    return 0;
}
