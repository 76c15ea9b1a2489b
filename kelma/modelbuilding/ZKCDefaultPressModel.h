// The embedded default printer model: sheet-fed offset CMYK on the ISO
// 12642-2 (IT8.7/4) chart of data/aptec_pc10, refined fit on the grid
// {0, 40, 100} % (81 nodes), D50 / 2 degree. Compiled into the library (no
// file is read at run time); the model to use when the user names none.
// Provenance and fitting error are recorded in the generated
// kelma/modelbuilding/DefaultPressModel_Data.cpp; DefaultPressModelFile()
// (kelma/modelfile) is the same model as a model file, shipped as
// data/models/aptec_pc10_cmyk.kelma. tools/kelma_fit_model regenerates both.
#pragma once

#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/common/Types.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/modelbuilding/ZKCModelBuilder.h"

namespace KELMA_NAMESPACE {

// The arrays in double (as fitted) and float (as predicted); 4 inks, 3 grid points.
KELMA_API ZKSPrinterModelArrays DefaultPressModelArrays();
// The model object from the float arrays under D50 / 2 degree, INK_SET_CMYK,
// not media-relative.
KELMA_API ZKCSSE_KELMA_Data DefaultPressModel();
// The same with the caller's lighting matrix, ink set and flags.
KELMA_API ZKCSSE_KELMA_Data DefaultPressModel(const ZKCLighting_Matrix& lightingMatrix, INK_SET inkSet,
                                              bool isMediaRelative, bool printAbsolutColorimetric);

}  // namespace KELMA_NAMESPACE
