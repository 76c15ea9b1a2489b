// Fits a printer model to a measured chart and writes it as a kelma model file
// and, optionally, as the generated C++ source of the library's embedded
// default model (the same model, the same provenance: DefaultPressModelFile()
// of a library built from that source formats to the model file byte for
// byte); or reports held-out accuracy of the classic and refined fits.
//
//   kelma_fit_model [options]
//     --chart FILE       CGATS chart with device values and spectra
//                        (default: data/aptec_pc10/APTEC_PC10_CardBoard_2023_v1_Spectral.txt)
//     --grid P,P,...     grid levels in percent for every ink (default 0,40,100);
//                        per ink: lists separated by ';' (e.g. "0,40,100;0,50,100;...")
//     --method M         refined (default) or classic
//     --estimate-missing estimate grid nodes the chart lacks
//     --coarse-grid P,.. grid of the model that estimates them (default 0,100)
//     --fine-base P,...  fine-grid fit: the base grid the grid's nodes are fitted toward
//     --fine-prior W     the fine-grid prior in patches per node, or auto (default)
//     --model FILE       write the model file (kelma/modelfile/ZKSModelFile.h)
//     --source FILE      write the embedded-model C++ source
//     --validate         two-fold held-out accuracy of both fits instead, on the
//                        library's split of --split-grid (default: --fine-base if
//                        given, else --grid)
//     --split-grid P,... the grid whose patches train both folds of --validate
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
    std::vector<double> perInkGrid;
    MODELFIT_METHOD method = MODELFIT_REFINED;
    bool estimateMissing = false;
    std::vector<double> coarseGrid, fineBase, splitGrid;
    double finePrior = 0.0;
    std::string model, source;
    bool validate = false;

    ZKSModelBuildOptions Options() const {
        ZKSModelBuildOptions o;
        o.gridPercent = perInkGrid.empty() ? grid : std::vector<double>{};
        o.perInkGridPercent = perInkGrid;
        o.method = method;
        o.estimateMissingNodes = estimateMissing;
        o.coarseGridPercent = coarseGrid;
        o.fineBaseGridPercent = fineBase;
        o.finePriorWeight = finePrior;
        return o;
    }
};

[[noreturn]] void Usage(const char* problem) {
    std::fprintf(stderr, "kelma_fit_model: %s\n(see the comment at the top of tools/kelma_fit_model.cpp)\n", problem);
    std::exit(2);
}

std::vector<double> Percentages(const std::string& option, const std::string& text) {
    std::vector<double> v;
    std::stringstream list(text);
    std::string item;
    while (std::getline(list, item, ',')) {
        char* end = nullptr;
        const double p = std::strtod(item.c_str(), &end);
        if (item.empty() || *end != '\0') Usage((option + " takes comma-separated percentages, got \"" + text + "\"").c_str());
        v.push_back(p);
    }
    return v;
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
            const std::string text = value();
            a.perInkGrid.clear();
            if (text.find(';') == std::string::npos) {
                a.grid = Percentages(arg, text);
            } else {
                std::stringstream inks(text);
                std::string ink;
                while (std::getline(inks, ink, ';')) {
                    const std::vector<double> levels = Percentages(arg, ink);
                    a.perInkGrid.insert(a.perInkGrid.end(), levels.begin(), levels.end());
                }
                a.grid.clear();
            }
        } else if (arg == "--estimate-missing") {
            a.estimateMissing = true;
        } else if (arg == "--coarse-grid") {
            a.coarseGrid = Percentages(arg, value());
        } else if (arg == "--fine-base") {
            a.fineBase = Percentages(arg, value());
        } else if (arg == "--fine-prior") {
            const std::string w = value();
            char* end = nullptr;
            a.finePrior = w == "auto" ? 0.0 : std::strtod(w.c_str(), &end);
            if (w != "auto" && (w.empty() || *end != '\0' || !(a.finePrior > 0.0)))
                Usage("--fine-prior takes auto or a positive number of patches per node");
        } else if (arg == "--split-grid") {
            a.splitGrid = Percentages(arg, value());
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

std::string JoinPercent(const std::vector<double>& v) {
    std::string s;
    char buf[32];
    for (double g : v) {
        std::snprintf(buf, sizeof buf, "%g", g);
        s += (s.empty() ? "" : ", ") + std::string(buf);
    }
    return s;
}

int Validate(const ZKCModelBuilder& builder, const Arguments& args) {
    const std::vector<double>& splitGrid =
        !args.splitGrid.empty() ? args.splitGrid : !args.fineBase.empty() ? args.fineBase : args.grid;
    if (splitGrid.empty()) Usage("--validate with a per-ink --grid needs --split-grid");
    const ZKSValidationSplit split = builder.ValidationSplit(splitGrid);
    std::printf("held-out validation on the split of the grid {%s} %%: %zu grid patches in every training set, "
                "halves of %zu and %zu patches\n",
                JoinPercent(splitGrid).c_str(), split.gridPatches.size(), split.half[0].size(), split.half[1].size());
    const unsigned int inks = builder.Chart().numberOfInks;
    for (MODELFIT_METHOD method : {MODELFIT_CLASSIC, MODELFIT_REFINED}) {
        std::vector<double> all, noBlack, black;
        for (unsigned int fold = 0; fold < 2; ++fold) {
            ZKSModelBuildOptions options = args.Options();
            options.method = method;
            options.trainingPatches = split.Training(fold);
            const auto start = std::chrono::steady_clock::now();
            const ZKSBuiltModel built = builder.Build(options);
            const double seconds = Seconds(start);
            const std::vector<std::size_t>& test = split.half[1 - fold];
            const std::vector<double> deltaE = PredictionDeltaE00(built.model, builder.Chart(), test);
            std::printf("  %s fold %u: n %.4f, %u iterations, %.2f s, training mean %.3f", MethodName(method), fold,
                        built.model.n, built.iterations, seconds, built.fitError.mean);
            if (built.finePriorWeight > 0.0) std::printf(", fine-grid prior %g", built.finePriorWeight);
            std::printf("\n");
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
    std::string description = "grid {" + grid + "} % for every ink";
    if (!args.perInkGrid.empty()) description = "grid per ink: " + JoinPercent(args.perInkGrid) + " %";
    if (!args.fineBase.empty()) {
        char prior[64];
        std::snprintf(prior, sizeof prior, "%g", built.finePriorWeight);
        description += "; nodes fitted toward the model on {" + JoinPercent(args.fineBase) + "} %, prior " + prior +
                       " patches per node";
    }
    f.provenance.description = description;
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

        const ZKSModelBuildOptions options = args.Options();
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
