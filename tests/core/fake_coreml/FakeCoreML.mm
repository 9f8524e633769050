// The fake's classes. They keep to the platform's rules for ownership: what a method without "init" in its name returns
// is autoreleased.
#import "tests/core/fake_coreml/FakeCoreML.h"

#import <CoreML/CoreML.h>
#import <Foundation/NSDebug.h>

namespace fake = ulmora::fake_coreml;

namespace {

// True if the call shall go on. Otherwise sets the error that the outcome has.
bool Goes(const fake::Outcome& outcome, NSError** error) {
  if (outcome.kind == fake::Outcome::Kind::Works) return true;
  if (outcome.kind == fake::Outcome::Kind::Error) {
    NSDictionary* words = [NSDictionary dictionaryWithObject:[NSString stringWithUTF8String:outcome.text.c_str()]
                                                      forKey:NSLocalizedDescriptionKey];
    *error = [NSError errorWithDomain:@"fake" code:7 userInfo:words];
  }
  return false;
}

NSArray* Numbers(const std::vector<long>& values) {
  NSMutableArray* numbers = [NSMutableArray array];
  for (const long value : values) [numbers addObject:[NSNumber numberWithLong:value]];
  return numbers;
}

std::string Text(NSString* string) {
  return [string UTF8String];
}

std::string PathOf(NSURL* url) {
  std::string path = Text([url path]);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

constexpr const char* kCompiledSuffix = ".compiled.mlmodelc";

// A compiled model lies elsewhere than its package.
NSURL* CompiledURL(const std::string& path) {
  NSString* compiled = [NSString stringWithUTF8String:(path + kCompiledSuffix).c_str()];
  return [NSURL fileURLWithPath:compiled isDirectory:YES];
}

std::string PackageOf(const std::string& path) {
  const std::string suffix = kCompiledSuffix;
  return path.ends_with(suffix) ? path.substr(0, path.size() - suffix.size()) : path;
}

const fake::Model* Find(const std::string& path) {
  const auto found = fake::TheWorld().models.find(path);
  return found == fake::TheWorld().models.end() ? nullptr : &found->second;
}

}  // namespace

@interface MLMultiArray (Fake)
- (instancetype)initWithTensor:(const fake::Tensor&)tensor;
- (const fake::Tensor&)tensor;
@end

@implementation MLMultiArray
- (instancetype)initWithTensor:(const fake::Tensor&)tensor {
  self = [super init];
  if (self != nil) tensor_ = new fake::Tensor(tensor);
  return self;
}
- (instancetype)initWithShape:(NSArray*)shape dataType:(MLMultiArrayDataType)dataType error:(NSError**)error {
  const fake::World& world = fake::TheWorld();
  if (!Goes(world.allocate, error)) {
    [self release];
    return nil;
  }
  std::vector<long> sizes;
  for (NSNumber* size in shape) sizes.push_back([size longValue]);
  return [self initWithTensor:fake::Tensor(sizes, static_cast<fake::Element>(dataType), world.sampleGap, world.rowGap,
                                           world.planeGap)];
}
- (void)dealloc {
  delete tensor_;
  [super dealloc];
}
- (const fake::Tensor&)tensor {
  return *tensor_;
}
- (void*)dataPointer {
  return tensor_->bytes.data();
}
- (MLMultiArrayDataType)dataType {
  return static_cast<MLMultiArrayDataType>(tensor_->element);
}
- (NSArray*)shape {
  return Numbers(tensor_->shape);
}
- (NSArray*)strides {
  return Numbers(tensor_->strides);
}
@end

@implementation MLFeatureValue
+ (instancetype)featureValueWithMultiArray:(MLMultiArray*)array {
  MLFeatureValue* value = [[[self alloc] init] autorelease];
  value->array_ = [array retain];
  return value;
}
- (void)dealloc {
  [array_ release];
  [super dealloc];
}
- (MLMultiArray*)multiArrayValue {
  return array_;
}
@end

@interface MLDictionaryFeatureProvider (Fake)
- (instancetype)initWithValues:(NSDictionary*)values;
@end

@implementation MLDictionaryFeatureProvider
- (instancetype)initWithValues:(NSDictionary*)values {
  self = [super init];
  if (self != nil) values_ = [values copy];
  return self;
}
- (instancetype)initWithDictionary:(NSDictionary*)dictionary error:(NSError**)error {
  if (!Goes(fake::TheWorld().provide, error)) {
    [self release];
    return nil;
  }
  return [self initWithValues:dictionary];
}
- (void)dealloc {
  [values_ release];
  [super dealloc];
}
- (MLFeatureValue*)featureValueForName:(NSString*)name {
  return [values_ objectForKey:name];
}
@end

@implementation MLModelConfiguration
- (instancetype)init {
  self = [super init];
  if (self != nil) units_ = MLComputeUnitsAll;
  return self;
}
- (MLComputeUnits)computeUnits {
  return units_;
}
- (void)setComputeUnits:(MLComputeUnits)units {
  units_ = units;
}
@end

@interface MLModelDescription (Fake)
- (instancetype)initWithModel:(const fake::Model&)model;
@end

@implementation MLModelDescription
- (instancetype)initWithModel:(const fake::Model&)model {
  self = [super init];
  if (self != nil) model_ = &model;
  return self;
}
- (NSDictionary*)describe:(const std::vector<std::string>&)names {
  NSMutableDictionary* descriptions = [NSMutableDictionary dictionary];
  for (const std::string& name : names) {
    [descriptions setObject:@"a description" forKey:[NSString stringWithUTF8String:name.c_str()]];
  }
  return descriptions;
}
- (NSDictionary*)inputDescriptionsByName {
  return [self describe:model_->inputs];
}
- (NSDictionary*)outputDescriptionsByName {
  return [self describe:model_->outputs];
}
@end

@implementation MLModel
+ (NSURL*)compileModelAtURL:(NSURL*)url error:(NSError**)error {
  const std::string path = PathOf(url);
  fake::Calls& calls = fake::TheWorld().calls;
  calls.compiled.push_back(path);
  calls.compiledUrls.push_back(Text([url absoluteString]));
  const fake::Model* model = Find(path);
  if (!Goes(model != nullptr ? model->compile : fake::Outcome::Error("no such package"), error)) return nil;
  return CompiledURL(path);
}
+ (instancetype)modelWithContentsOfURL:(NSURL*)url
                         configuration:(MLModelConfiguration*)configuration
                                 error:(NSError**)error {
  const std::string path = PathOf(url);
  fake::Calls& calls = fake::TheWorld().calls;
  calls.loaded.push_back(path);
  calls.computeUnits.push_back([configuration computeUnits]);
  const fake::Model* model = Find(PackageOf(path));
  if (!Goes(model != nullptr ? model->load : fake::Outcome::Error("no such model"), error)) return nil;
  MLModel* loaded = [[[self alloc] init] autorelease];
  loaded->model_ = new fake::Model(*model);
  return loaded;
}
- (void)dealloc {
  delete model_;
  [super dealloc];
}
- (MLModelDescription*)modelDescription {
  return [[[MLModelDescription alloc] initWithModel:*model_] autorelease];
}
- (id<MLFeatureProvider>)predictionFromFeatures:(id<MLFeatureProvider>)features error:(NSError**)error {
  ++fake::TheWorld().calls.predictions;
  NSString* inputName = [NSString stringWithUTF8String:model_->inputs.front().c_str()];
  MLMultiArray* input = [[features featureValueForName:inputName] multiArrayValue];
  if (input == nil) {
    Goes(fake::Outcome::Error("no value for the input"), error);
    return nil;
  }
  if (!Goes(model_->predictFor ? model_->predictFor([input tensor]) : model_->predict, error)) return nil;
  NSMutableDictionary* values = [NSMutableDictionary dictionary];
  if (model_->network) {
    const std::optional<fake::Tensor> output = model_->network([input tensor]);
    MLMultiArray* array = output ? [[[MLMultiArray alloc] initWithTensor:*output] autorelease] : nil;
    [values setObject:[MLFeatureValue featureValueWithMultiArray:array]
               forKey:[NSString stringWithUTF8String:model_->outputs.front().c_str()]];
  }
  return [[[MLDictionaryFeatureProvider alloc] initWithValues:values] autorelease];
}
@end

namespace ulmora::fake_coreml {

long LiveObjects() {
  GSDebugAllocationActive(YES);
  long alive = 0;
  for (Class* next = GSDebugAllocationClassList(); *next != nil; ++next) alive += GSDebugAllocationCount(*next);
  return alive;
}

}  // namespace ulmora::fake_coreml
