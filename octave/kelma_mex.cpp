// The MEX entry point: the library's gateway over the host's matrix API.
// The same source builds for Octave and for MATLAB (whose headers map these
// plain names to the large-array API).
#include <exception>
#include <new>
#include <string>

#include "mex.h"

#include "kelma/common/LibraryErrors.h"
#include "kelma/mex/ZKCMexGateway.h"

namespace {

class HostArrays : public kelma::ZKCMexHost {
public:
    void* GetPr(const void* array) const override { return mxGetPr(static_cast<const mxArray*>(array)); }
    const std::size_t* GetDimensions(const void* array) const override {
        static_assert(sizeof(mwSize) == sizeof(std::size_t), "64-bit host dimensions");
        return reinterpret_cast<const std::size_t*>(mxGetDimensions(static_cast<const mxArray*>(array)));
    }
    void* CreateSingleMatrix(std::size_t rows, std::size_t columns) override {
        mwSize dims[2] = {static_cast<mwSize>(rows), static_cast<mwSize>(columns)};
        return mxCreateNumericArray(2, dims, mxSINGLE_CLASS, mxREAL);
    }
};

}  // namespace

// A C++ exception escaping a MEX function aborts the host, so every failure
// is caught here, after the gateway's objects are gone, and raised through
// the host's error function with the library's own text.
extern "C" void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
    (void)nlhs;
    (void)nrhs;
    std::string message;
    const char* id = "kelma:failure";
    try {
        HostArrays host;
        kelma::MexGatewayBody(host, reinterpret_cast<void**>(plhs), reinterpret_cast<const void* const*>(prhs));
        return;
    } catch (const char* text) {
        const kelma::ZKSLibraryError e = kelma::FindLibraryError(text);
        message = kelma::ExplainLibraryError(text);
        id = e.kind == kelma::LIBRARY_ERROR_ARGUMENT ? "kelma:library:argument" : "kelma:library:internal";
    } catch (const std::bad_alloc&) {
        message = "out of memory";
        id = "kelma:nomemory";
    } catch (const std::exception& e) {
        message = e.what();
    } catch (...) {
        message = "unknown failure";
    }
    mexErrMsgIdAndTxt(id, "%s", message.c_str());
}
