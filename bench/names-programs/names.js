// Holds objects and buffers, and prints what V8 says of them.

const v8 = require('v8');
const kept = [];
for (let i = 0; i < 400000; ++i) kept.push({ number: i, text: 'text ' + i, list: [i, i + 1] });
const buffers = [];
for (let i = 0; i < 20; ++i) buffers.push(Buffer.alloc(4 << 20, 1));
global.gc();
const heap = v8.getHeapSpaceStatistics().reduce((sum, space) => sum + space.physical_space_size, 0);
console.log('V8 heap\t' + heap);
console.log('MALLOC_LARGE\t' + process.memoryUsage().arrayBuffers);
console.log('ready');
process.stdin.once('data', () => { console.log(kept.length + buffers.length); process.exit(); });
process.stdin.resume();
