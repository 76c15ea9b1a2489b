// The whole exported API of kelma.
#pragma once

#include "kelma/common/Config.h"
#include "kelma/common/Types.h"
#include "kelma/threading/Threading.h"
#include "kelma/colorimetry/ZKCObserver.h"
#include "kelma/colorimetry/ZKCIlluminant.h"
#include "kelma/colorimetry/ZKCLighting_Matrix.h"
#include "kelma/colorimetry/ZKCWhitePoint.h"
#include "kelma/colorspace/ZKCColorSpaceTransformationLUT.h"
#include "kelma/clut/ZKCUserParameter_Output.h"
#include "kelma/model/ZKCSSE_KELMA_Data.h"
#include "kelma/model/ZKCSSE_KELMA_Datafilter.h"
#include "kelma/prediction/ZKCSSE_KELMA_Thread.h"
#include "kelma/sampling/ZKCSpectralSampling_Thread.h"
#include "kelma/mex/ZKCMexGateway.h"
#include "kelma/measurement/ZKCMeasurementFile.h"
