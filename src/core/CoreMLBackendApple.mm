// CoreMLBackend over Core ML. Retain counts are kept by hand: an Owned holds what outlives a call, and everything else
// belongs to the autorelease scope around it.
#include "core/BackendContract.h"
#include "core/CoreMLBackend.h"

#import <CoreML/CoreML.h>
#import <Foundation/Foundation.h>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

// Newer systems would rather call back when a model is compiled and while a tensor's memory is used. There is nothing
// to do meanwhile, and the direct calls exist on every system.
#pragma clang diagnostic ignored "-Wdeprecated-declarations"

namespace ulmora::core {

namespace {

using contract::Fail;
using contract::kChannels;

// Releases what was autoreleased since it was made, also when a C++ exception passes: @autoreleasepool leaves its
// objects to the next outer pool then.
class AutoreleaseScope {
 public:
  AutoreleaseScope() : pool_([[NSAutoreleasePool alloc] init]) {}
  ~AutoreleaseScope() { [pool_ drain]; }
  // Pools are nested like scopes.
  AutoreleaseScope(const AutoreleaseScope&) = delete;
  AutoreleaseScope& operator=(const AutoreleaseScope&) = delete;

 private:
  NSAutoreleasePool* pool_;
};

// A strong reference.
template <typename Object>
class Owned {
 public:
  explicit Owned(Object* object) : object_([object retain]) {}
  ~Owned() { [object_ release]; }
  // Nobody needs a second reference.
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;

  [[nodiscard]] Object* get() const { return object_; }

 private:
  Object* object_;
};

std::string NSErrorMessage(NSError* error) {
  const char* text = [[error localizedDescription] UTF8String];
  return text != nullptr ? text : "unknown CoreML error";
}

NSURL* ModelURL(const std::string& path) {
  NSString* text = [NSString stringWithUTF8String:path.c_str()];
  BOOL isDirectory = NO;
  // Bytes that are not UTF-8 make no string, and name no file.
  if (text == nil || ![[NSFileManager defaultManager] fileExistsAtPath:text isDirectory:&isDirectory]) {
    Fail(contract::kNotFound, path);
  }
  return [NSURL fileURLWithPath:text isDirectory:isDirectory];
}

// A .mlmodelc is taken as it is; anything else is compiled.
NSURL* CompiledModelURL(NSURL* url) {
  if ([[url pathExtension] isEqualToString:@"mlmodelc"]) return url;
  NSError* error = nil;
  NSURL* compiled = [MLModel compileModelAtURL:url error:&error];
  if (compiled == nil) Fail(contract::kNotCompiled, NSErrorMessage(error));
  return compiled;
}

MLModel* LoadedModel(NSURL* compiled) {
  MLModelConfiguration* configuration = [[[MLModelConfiguration alloc] init] autorelease];
  [configuration setComputeUnits:MLComputeUnitsCPUAndGPU];
  NSError* error = nil;
  MLModel* model = [MLModel modelWithContentsOfURL:compiled configuration:configuration error:&error];
  if (model == nil) Fail(contract::kNotLoaded, NSErrorMessage(error));
  return model;
}

// Distances between neighbouring planes, rows and samples, in elements. The array alone knows them: its rows may be
// padded.
struct Strides {
  explicit Strides(MLMultiArray* array)
      : plane([[[array strides] objectAtIndex:1] integerValue]),
        row([[[array strides] objectAtIndex:2] integerValue]),
        sample([[[array strides] objectAtIndex:3] integerValue]) {}

  [[nodiscard]] NSInteger OffsetOf(int c, int y, int x) const { return c * plane + y * row + x * sample; }

  NSInteger plane;
  NSInteger row;
  NSInteger sample;
};

MLMultiArray* ImageToMultiArray(const cv::Mat& image) {
  contract::RequireTile(image);
  const id sizes[] = {[NSNumber numberWithInt:1], [NSNumber numberWithInt:kChannels],
                      [NSNumber numberWithInt:image.rows], [NSNumber numberWithInt:image.cols]};
  NSArray* shape = [NSArray arrayWithObjects:sizes count:std::size(sizes)];
  NSError* error = nil;
  MLMultiArray* array = [[[MLMultiArray alloc] initWithShape:shape dataType:MLMultiArrayDataTypeFloat32
                                                       error:&error] autorelease];
  if (array == nil) Fail(contract::kNoInputTensor, NSErrorMessage(error));
  auto* data = static_cast<float*>([array dataPointer]);
  const Strides strides(array);
  for (int y = 0; y < image.rows; ++y) {
    const auto* row = image.ptr<cv::Vec3f>(y);
    for (int x = 0; x < image.cols; ++x) {
      for (int c = 0; c < kChannels; ++c) data[strides.OffsetOf(c, y, x)] = row[x][c];
    }
  }
  return array;
}

bool HasShape(MLMultiArray* array, int rows, int cols) {
  const NSInteger expected[] = {1, kChannels, rows, cols};
  NSArray* shape = [array shape];
  if ([shape count] != std::size(expected)) return false;
  for (NSUInteger i = 0; i < std::size(expected); ++i) {
    if ([[shape objectAtIndex:i] integerValue] != expected[i]) return false;
  }
  return true;
}

cv::Mat MultiArrayToImage(MLMultiArray* array, int rows, int cols) {
  if (array == nil) throw std::runtime_error("CoreML output tensor is missing.");
  if ([array dataType] != MLMultiArrayDataTypeFloat32) throw std::runtime_error(contract::kOutputNotFloat32);
  if (!HasShape(array, rows, cols)) throw std::runtime_error(contract::kOutputShape);
  const auto* data = static_cast<const float*>([array dataPointer]);
  const Strides strides(array);
  cv::Mat image(rows, cols, CV_32FC3);
  for (int y = 0; y < rows; ++y) {
    auto* row = image.ptr<cv::Vec3f>(y);
    for (int x = 0; x < cols; ++x) {
      for (int c = 0; c < kChannels; ++c) row[x][c] = data[strides.OffsetOf(c, y, x)];
    }
  }
  return image;
}

MLDictionaryFeatureProvider* FeaturesOf(MLMultiArray* array, NSString* name) {
  const id values[] = {[MLFeatureValue featureValueWithMultiArray:array]};
  const id<NSCopying> names[] = {name};
  NSDictionary* features = [NSDictionary dictionaryWithObjects:values forKeys:names count:1];
  NSError* error = nil;
  MLDictionaryFeatureProvider* provider = [[[MLDictionaryFeatureProvider alloc] initWithDictionary:features
                                                                                             error:&error] autorelease];
  if (provider == nil) Fail("Unable to create CoreML input features", NSErrorMessage(error));
  return provider;
}

}  // namespace

struct CoreMLBackend::Impl {
  Owned<MLModel> model;
  Owned<NSString> inputName;
  Owned<NSString> outputName;

  Impl(MLModel* opened, NSString* input, NSString* output) : model(opened), inputName(input), outputName(output) {}
};

CoreMLBackend::CoreMLBackend(const std::string& modelPath) try {
  const AutoreleaseScope scope;
  MLModel* model = LoadedModel(CompiledModelURL(ModelURL(modelPath)));
  NSArray* inputs = [[[model modelDescription] inputDescriptionsByName] allKeys];
  NSArray* outputs = [[[model modelDescription] outputDescriptionsByName] allKeys];
  if ([inputs count] != 1 || [outputs count] != 1) throw std::runtime_error(contract::kNotOneInputAndOutput);
  impl_ = std::make_unique<Impl>(model, [inputs firstObject], [outputs firstObject]);
} catch (const std::exception& failure) {
  throw std::runtime_error(contract::OpeningFailure(failure, modelPath));
}

CoreMLBackend::~CoreMLBackend() = default;

cv::Mat CoreMLBackend::RunTile(const cv::Mat& tile) {
  const AutoreleaseScope scope;
  MLDictionaryFeatureProvider* features = FeaturesOf(ImageToMultiArray(tile), impl_->inputName.get());
  NSError* error = nil;
  id<MLFeatureProvider> result = [impl_->model.get() predictionFromFeatures:features error:&error];
  if (result == nil) Fail(contract::kNotPredicted, NSErrorMessage(error));
  MLMultiArray* array = [[result featureValueForName:impl_->outputName.get()] multiArrayValue];
  if (array == nil) throw std::runtime_error(contract::kNoOutputArray);
  return MultiArrayToImage(array, tile.rows, tile.cols);
}

}  // namespace ulmora::core
