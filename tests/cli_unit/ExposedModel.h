#pragma once
// The model's pipeline stages with their state open to tests.

#include "cli/DLModelBase.h"

namespace ulmora::test {

class ExposedModel : public DLModelBase {
 public:
  using DLModelBase::astro_tiff_header_;
  using DLModelBase::grayscale_;
  using DLModelBase::height_;
  using DLModelBase::image_;
  using DLModelBase::input_depth_;
  using DLModelBase::input_is_fits_;
  using DLModelBase::input_scale_;
  using DLModelBase::machine_progress_;
  using DLModelBase::margin_;
  using DLModelBase::padded_height_;
  using DLModelBase::padded_width_;
  using DLModelBase::quiet_;
  using DLModelBase::source_image_;
  using DLModelBase::stride_;
  using DLModelBase::tile_geometry_;
  using DLModelBase::width_;
  using DLModelBase::window_size_;
};

}  // namespace ulmora::test
