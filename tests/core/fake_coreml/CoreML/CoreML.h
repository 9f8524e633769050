#pragma once
// A fake of the Core ML classes that our backend uses, written from the names, types and values of its interface.
// What they do is scripted by tests/core/fake_coreml/FakeCoreML.h.
#import <Foundation/Foundation.h>

namespace ulmora::fake_coreml {
struct Model;
struct Tensor;
}  // namespace ulmora::fake_coreml

enum : NSInteger {
  MLComputeUnitsCPUOnly = 0,
  MLComputeUnitsCPUAndGPU = 1,
  MLComputeUnitsAll = 2,
};
typedef NSInteger MLComputeUnits;

enum : NSInteger {
  MLMultiArrayDataTypeFloat16 = 0x10010,
  MLMultiArrayDataTypeFloat32 = 0x10020,
  MLMultiArrayDataTypeDouble = 0x10040,
};
typedef NSInteger MLMultiArrayDataType;

@interface MLMultiArray : NSObject {
  ulmora::fake_coreml::Tensor* tensor_;
}
- (instancetype)initWithShape:(NSArray*)shape dataType:(MLMultiArrayDataType)dataType error:(NSError**)error;
- (void*)dataPointer;
- (MLMultiArrayDataType)dataType;
- (NSArray*)shape;
- (NSArray*)strides;
@end

@interface MLFeatureValue : NSObject {
  MLMultiArray* array_;
}
+ (instancetype)featureValueWithMultiArray:(MLMultiArray*)array;
- (MLMultiArray*)multiArrayValue;
@end

@protocol MLFeatureProvider <NSObject>
- (MLFeatureValue*)featureValueForName:(NSString*)name;
@end

@interface MLDictionaryFeatureProvider : NSObject <MLFeatureProvider> {
  NSDictionary* values_;
}
- (instancetype)initWithDictionary:(NSDictionary*)dictionary error:(NSError**)error;
@end

@interface MLModelConfiguration : NSObject {
  MLComputeUnits units_;
}
- (MLComputeUnits)computeUnits;
- (void)setComputeUnits:(MLComputeUnits)units;
@end

@interface MLModelDescription : NSObject {
  const ulmora::fake_coreml::Model* model_;
}
- (NSDictionary*)inputDescriptionsByName;
- (NSDictionary*)outputDescriptionsByName;
@end

@interface MLModel : NSObject {
  const ulmora::fake_coreml::Model* model_;
}
+ (NSURL*)compileModelAtURL:(NSURL*)url error:(NSError**)error;
+ (instancetype)modelWithContentsOfURL:(NSURL*)url
                         configuration:(MLModelConfiguration*)configuration
                                 error:(NSError**)error;
- (MLModelDescription*)modelDescription;
- (id<MLFeatureProvider>)predictionFromFeatures:(id<MLFeatureProvider>)features error:(NSError**)error;
@end
