// Fits a printer model to a measured chart and writes it as a text model file
// and, optionally, as the generated C++ source of the library's embedded
// default model; or reports held-out accuracy of the classic and refined fits.
//
//   kelma_fit_model [options]
//     --chart FILE       CGATS chart with device values and spectra
//                        (default: data/aptec_pc10/APTEC_PC10_CardBoard_2023_v1_Spectral.txt)
//     --grid P,P,...     grid levels in percent for every ink (default 0,40,100)
//     --method M         refined (default) or classic
//     --model FILE       write the text model file
//     --source FILE      write the embedded-model C++ source
//     --validate         two-fold held-out accuracy of both fits instead
//
// Regenerating the embedded default model (from the repository root, after a build):
//   build/tools/kelma_fit_model --model data/models/aptec_pc10_cmyk.txt
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

#include "kelma/measurement/ZKCMeasurementFile.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"

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

void WriteText(const std::string& path, const std::string& text) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f || std::fputs(text.c_str(), f) < 0 || std::fclose(f) != 0) {
        std::fprintf(stderr, "kelma_fit_model: cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

std::string Provenance(const ZKSBuiltModel& built, const Arguments& args, std::size_t patches, const char* prefix) {
    char buf[512];
    std::string grid;
    for (double g : args.grid) grid += (grid.empty() ? "" : ", ") + std::to_string(static_cast<int>(g));
    std::snprintf(buf, sizeof buf,
                  "%sFitted by tools/kelma_fit_model (%s fit) to %s, all %zu patches,\n"
                  "%sgrid {%s} %% for every ink; D50 / 2 degree.\n"
                  "%sTraining CIEDE2000 (library prediction): mean %.3f, p95 %.3f, max %.3f.\n",
                  prefix, MethodName(built.method), FileName(args.chart).c_str(), patches, prefix, grid.c_str(), prefix,
                  built.fitError.mean, built.fitError.p95, built.fitError.max);
    return buf;
}

// Text model: keywords, then whitespace-separated values (%.17g round-trips doubles).
void WriteModel(const std::string& path, const ZKSBuiltModel& built, const Arguments& args, std::size_t patches) {
    const ZKSPrinterModelArrays& m = built.model;
    std::string text = "# kelma printer model (cellular Yule-Nielsen modified spectral Neugebauer)\n";
    text += Provenance(built, args, patches, "# ");
    text += "# Layouts as ZKCSSE_KELMA_Data takes them; spectra on 400-700 nm / 10 nm.\n";
    char buf[128];
    std::snprintf(buf, sizeof buf, "INKS %u\nGRID_POINTS %u\nN %.17g\n", m.numberOfInks, m.numberOfGridPoints, m.n);
    text += buf;
    text += "GRID_LEVELS\n" + Join(m.gridPoints, "%.17g", m.numberOfGridPoints, "");
    text += "EFFECTIVE_RAMPS\n" + Join(m.effectiveRamps, "%.17g", 256, "");
    text += "MATRIX_SCHEME\n" + Join(m.matrixScheme, "%.17g", std::size_t{1} << m.numberOfInks, "");
    WriteText(path, text);
}

// Generated source: the arrays as exact hexadecimal double literals.
void WriteSource(const std::string& path, const ZKSBuiltModel& built, const Arguments& args, std::size_t patches) {
    const ZKSPrinterModelArrays& m = built.model;
    std::string text = "// Generated by tools/kelma_fit_model; do not edit. Regenerate with the command in\n"
                       "// tools/kelma_fit_model.cpp.\n";
    text += Provenance(built, args, patches, "// ");
    text += "#include \"kelma/modelbuilding/DefaultPressModelData.h\"\n\n"
            "namespace KELMA_NAMESPACE {\nnamespace modelbuilding {\n\n";
    char buf[160];
    std::snprintf(buf, sizeof buf,
                  "const unsigned int kDefaultPressInks = %u;\nconst unsigned int kDefaultPressGridPoints = %u;\n"
                  "const double kDefaultPressN = %a;\n\n",
                  m.numberOfInks, m.numberOfGridPoints, m.n);
    text += buf;
    text += "const double kDefaultPressGridLevels[] = {\n" + Join(m.gridPoints, "%a,", 8, "    ") + "};\n\n";
    text += "const double kDefaultPressEffectiveRamps[] = {\n" + Join(m.effectiveRamps, "%a,", 4, "    ") + "};\n\n";
    text += "const double kDefaultPressMatrixScheme[] = {\n" + Join(m.matrixScheme, "%a,", 4, "    ") + "};\n\n";
    std::snprintf(buf, sizeof buf, "const std::size_t kDefaultPressMatrixSchemeSize = %zu;\n\n", m.matrixScheme.size());
    text += buf;
    text += "}  // namespace modelbuilding\n}  // namespace KELMA_NAMESPACE\n";
    WriteText(path, text);
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
        const std::size_t patches = builder.Chart().PatchCount();
        if (!args.model.empty()) WriteModel(args.model, built, args, patches);
        if (!args.source.empty()) WriteSource(args.source, built, args, patches);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kelma_fit_model: %s\n", e.what());
        return 1;
    } catch (const char* e) {
        std::fprintf(stderr, "kelma_fit_model: %s\n", e);
        return 1;
    }
    return 0;
}
