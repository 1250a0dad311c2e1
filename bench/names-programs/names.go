// Holds objects, and prints what the runtime says of its memory.

package main

import (
	"fmt"
	"os"
	"runtime"
)

func main() {
	kept := map[int]string{}
	for i := 0; i < 300000; i++ {
		kept[i] = fmt.Sprint("text ", i)
	}
	blocks := [][]byte{}
	for i := 0; i < 100; i++ {
		block := make([]byte, 1<<20)
		for j := range block {
			block[j] = 1
		}
		blocks = append(blocks, block)
	}
	var stats runtime.MemStats
	runtime.ReadMemStats(&stats)
	fmt.Printf("Go heap\t%d\n", stats.HeapSys-stats.HeapReleased+stats.StackSys)
	fmt.Println("ready")
	os.Stdin.Read(make([]byte, 1))
	fmt.Println(len(kept), len(blocks))
}
