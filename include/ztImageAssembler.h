// Image assembly for the device links: 16-bit frames scaled to 8-bit images, and 8-bit
// cut-outs pasted into an image of the frame's size.
//
// ztEmbeddedModuleProxyServer (network head) and ztUsbProxyServer (USB head) inherit these
// methods; the class can also be used on its own.
//
// Records, as the data callback delivers them (little-endian, offsets in bytes):
//   0   64 bytes  record header, handed back unchanged
//   64  u64       timestamp
//   72  u16       width in pixels
//   74  u16       height in pixels
//   76            full frame: width x height u16 pixels, row by row         (getOriImageData)
//   76  u16       part count, then each part: x, y, w, h (u16 each) and
//                 w x h 8-bit pixels row by row                             (getCutoutImageData)
// The record is trusted to hold what its width, height and parts declare.
//
// Scaling: a 16-bit value v gives r = (max(v, 144) - 144) * 255 / 880, truncated; the
// 8-bit pixel is the low byte of r (values from 1028 on wrap) and r is written back into
// the source pixel. Callers that need the 16-bit frame afterwards must copy it first.
//
// Image lifetime: getOriImageData and getCutoutImageData hand out a pointer into the last
// image this object made. It stays valid until the next call of either method on the same
// object, or the object's destruction. Calls from several threads are safe, but each one
// invalidates the pointer handed out by the one before, so a caller sharing an object
// between threads copies the pixels before another thread calls again.
//
// Failures return -1 (an empty image from imageFormat_16To8) with a log line: a null
// pointer, counts that do not fit the image, or an image that cannot be allocated.
#ifndef ZT_IMAGE_ASSEMBLER_H
#define ZT_IMAGE_ASSEMBLER_H

#include "ztProxyExport.h"

#include <opencv2/core/mat.hpp>

#include <mutex>

class ZT_PROXY_API ztImageAssembler {
public:
    ztImageAssembler();
    virtual ~ztImageAssembler();
    ztImageAssembler(const ztImageAssembler&) = delete;
    ztImageAssembler& operator=(const ztImageAssembler&) = delete;

    // A new rows x cols CV_8UC1 image whose first count pixels are the scaled src pixels
    // (the rest are 0); src is rewritten in place. count must lie within 0..rows x cols.
    cv::Mat imageFormat_16To8(unsigned short* src, int count, int rows, int cols);
    // Copies a packed partWidth x partRows 8-bit block into full with its top-left corner
    // at column x, row y. full must be a continuous CV_8UC1 image and the block must lie
    // inside it; otherwise nothing is copied and a log line says why.
    void MergePart2Complete(cv::Mat* full, unsigned char* part, int x, int y, int partWidth, int partRows);
    // Scales the record's full frame to 8 bits (rewriting its pixels in place) and fills
    // header (64 bytes), image, width, height and timestamp. Returns 0.
    int getOriImageData(char* record, unsigned char*& image, short* width, short* height,
                        unsigned long long* timestamp, char* header);
    // Pastes the record's parts into a zeroed image of the declared size and fills the
    // outputs as getOriImageData does. A part is pasted only if it ends strictly inside
    // the image: x + w < width and y + h < height. Returns 0.
    int getCutoutImageData(char* record, unsigned char*& image, short* width, short* height,
                           unsigned long long* timestamp, char* header);

private:
    std::mutex m_imageMutex;
    cv::Mat m_image; // the image whose pixels the last call handed out
};

#endif
