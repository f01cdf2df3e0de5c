// The two questions of scripts/bench.sh, asked of the Go netlink library, which asks the kernel each time.
package main

import (
	"fmt"
	"os"
	"sort"
	"time"

	"github.com/vishvananda/netlink"
)

func check(err error) {
	if err != nil {
		panic(err)
	}
}

func ask(name string) (netlink.Link, []netlink.Addr) {
	link, err := netlink.LinkByName(name)
	check(err)
	addresses, err := netlink.AddrList(link, netlink.FAMILY_V4)
	check(err)
	return link, addresses
}

func update(name string, mtu int, text string) {
	link, old := ask(name)
	check(netlink.LinkSetMTU(link, mtu))
	for i := range old {
		check(netlink.AddrDel(link, &old[i]))
	}
	address, err := netlink.ParseAddr(text)
	check(err)
	check(netlink.AddrAdd(link, address))
	found, addresses := ask(name)
	if found.Attrs().MTU != mtu || len(addresses) != 1 || addresses[0].IPNet.String() != text {
		panic("not as wanted")
	}
}

// Repeats the step for a second, and prints the median of its times.
func measure(what string, step func(i int)) {
	var times []float64
	for begin := time.Now(); time.Since(begin) < time.Second; {
		start := time.Now()
		step(len(times))
		times = append(times, float64(time.Since(start).Nanoseconds())/1000)
	}
	sort.Float64s(times)
	fmt.Printf("%s %.2f\n", what, times[len(times)/2])
}

func main() {
	names := os.Args[1:]
	measure("query", func(i int) {
		if _, addresses := ask(names[i%len(names)]); len(addresses) != 1 {
			panic("not as expected")
		}
	})
	measure("update", func(i int) { update("p", 1400+i%2, fmt.Sprintf("10.20%d.0.1/24", i%2)) })
}
