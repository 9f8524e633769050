// The innermost loop of matrix products, over channels in blocks of kLanes. The including source defines kLanes, kRows
// and kColumns before, and includes Lanes.inl.

/// Products of kRows rows of factors with `Columns` blocks of results: sums over all inputs stay in registers. Factors are
/// [blocks][rows][kLanes] and products [Columns][rows][kLanes], blockStep floats between blocks of either; weights are
/// [inputs][Columns][kLanes].
template <int Columns>
struct Multiply {
  Lanes sums[kRows][Columns];

  template <int Row>
  LUMVANE_INLINE void AddRow(const float* factors, const Lanes* weights) {
    if constexpr (Row < kRows) {
      // The scalar is multiplied as it is: added to zeros first, it would take as long as the product.
      const float factor = factors[Row * kLanes];
      sums[Row][0] += factor * weights[0];
      if constexpr (Columns > 1) sums[Row][1] += factor * weights[1];
      AddRow<Row + 1>(factors, weights);
    }
  }

  template <int Row>
  LUMVANE_INLINE void Clear() {
    if constexpr (Row < kRows) {
      for (int c = 0; c < Columns; ++c) sums[Row][c] = Lanes{};
      Clear<Row + 1>();
    }
  }

  template <int Row>
  LUMVANE_INLINE void Write(float* products, std::int64_t blockStep) const {
    if constexpr (Row < kRows) {
      for (int c = 0; c < Columns; ++c) Store(products + c * blockStep + Row * kLanes, sums[Row][c]);
      Write<Row + 1>(products, blockStep);
    }
  }

  static void Run(const float* factors, const float* weights, std::int64_t blocks, std::int64_t blockStep,
                  float* products) {
    Multiply m;
    m.template Clear<0>();
    for (std::int64_t block = 0; block < blocks; ++block) {
      for (int lane = 0; lane < kLanes; ++lane) {
        Lanes column[Columns];
        for (int c = 0; c < Columns; ++c) column[c] = Load(weights + c * kLanes);
        m.template AddRow<0>(factors + lane, column);
        weights += Columns * kLanes;
      }
      factors += blockStep;
    }
    m.template Write<0>(products, blockStep);
  }
};
