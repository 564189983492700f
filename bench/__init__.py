"""The benchmarks; ./bench/run does all of them."""
