"""The runner of the benchmarks that compare whole servers; bench/run is its command."""
