# Holds objects, and prints how many pages of them the garbage collector has.

kept = (0...600_000).map { |i| [i, "text #{i}"] }
size = GC::INTERNAL_CONSTANTS[:HEAP_PAGE_SIZE] || 16_384
puts "Ruby heap\t#{GC.stat[:heap_allocated_pages] * size}"
puts 'ready'
$stdout.flush
$stdin.gets
puts kept.size
