// Plane geometry (single points and batches) and the CRC-16.
using System;
using System.Runtime.InteropServices;

namespace Quelworks
{
    /// <summary>A point; y points up.</summary>
    [StructLayout(LayoutKind.Sequential)]
    public struct Point
    {
        /// <summary>x coordinate.</summary>
        public float X;
        /// <summary>y coordinate (upwards).</summary>
        public float Y;

        /// <summary>A point at (x, y).</summary>
        public Point(float x, float y)
        {
            X = x;
            Y = y;
        }

        /// <summary>The point as "(x, y)".</summary>
        public override string ToString()
        {
            return "(" + X + ", " + Y + ")";
        }
    }

    /// <summary>An axis-aligned rectangle from its corner of smallest coordinates.</summary>
    [StructLayout(LayoutKind.Sequential)]
    public struct RectF
    {
        /// <summary>x of the corner of smallest coordinates.</summary>
        public float X;
        /// <summary>y of the corner of smallest coordinates.</summary>
        public float Y;
        /// <summary>Width.</summary>
        public float Width;
        /// <summary>Height.</summary>
        public float Height;

        /// <summary>A rectangle from its corner of smallest coordinates and its size.</summary>
        public RectF(float x, float y, float width, float height)
        {
            X = x;
            Y = y;
            Width = width;
            Height = height;
        }
    }

    /// <summary>A segment of a hatching.</summary>
    [StructLayout(LayoutKind.Sequential)]
    public struct Segment
    {
        /// <summary>Where the segment starts.</summary>
        public Point Start;
        /// <summary>Where the segment ends.</summary>
        public Point End;
    }

    /// <summary>A calibration pair: where the camera saw a mark and where the device put it.</summary>
    [StructLayout(LayoutKind.Sequential)]
    public struct CalibrationPoint
    {
        /// <summary>Where the camera saw the mark.</summary>
        public Point Camera;
        /// <summary>Where the device put it.</summary>
        public Point Device;

        /// <summary>A calibration pair.</summary>
        public CalibrationPoint(Point camera, Point device)
        {
            Camera = camera;
            Device = device;
        }
    }

    /// <summary>Plane geometry. The batch calls take whole arrays, so many points cost one
    /// call into the library.</summary>
    public static class Geometry
    {
        /// <summary>Whether (x, y) lies inside the polygon. Edges run from each vertex to the
        /// next: repeat the first vertex at the end to close it. Cross products are truncated to
        /// whole numbers, so points within about one unit of an edge may go either way.</summary>
        public static bool PointInPolygon(Point[] polygon, float x, float y)
        {
            NotNull(polygon, "polygon");
            int inside;
            Call.Check(NativeMethods.qw_geo_point_in_polygon(polygon, polygon.Length, x, y, out inside));
            return inside != 0;
        }

        /// <summary>PointInPolygon for every point, in one call.</summary>
        public static bool[] PointsInPolygon(Point[] polygon, Point[] points)
        {
            NotNull(polygon, "polygon");
            NotNull(points, "points");
            var inside = new byte[points.Length];
            Call.Check(NativeMethods.qw_geo_points_in_polygon(polygon, polygon.Length, points, points.Length, inside));
            var result = new bool[points.Length];
            for (int i = 0; i < inside.Length; ++i) result[i] = inside[i] != 0;
            return result;
        }

        /// <summary>The integer-aligned bounding box; no points give (0, 0, 1, 1).</summary>
        public static RectF BoundingBox(Point[] points)
        {
            NotNull(points, "points");
            RectF box;
            Call.Check(NativeMethods.qw_geo_bounding_box(points, points.Length, out box));
            return box;
        }

        /// <summary>Rectangles covering the polygon's inside within area; tolerance is the
        /// percentage of sample points that may lie outside a kept rectangle.</summary>
        public static RectF[] CoverPolygon(Point[] polygon, RectF area, int tolerance)
        {
            NotNull(polygon, "polygon");
            IntPtr rects;
            int count;
            Call.Check(NativeMethods.qw_geo_cover_polygon(polygon, polygon.Length, ref area, tolerance, null, 0,
                                                          out rects, out count));
            return Call.TakeArray<RectF>(rects, count);
        }

        /// <summary>Horizontal hatching of the outline (closed implicitly), spacing units apart:
        /// one array of segments per scan line, left to right.</summary>
        public static Segment[][] Hatch(Point[] outline, int spacing)
        {
            NotNull(outline, "outline");
            IntPtr segments, sizes;
            int segmentCount, groupCount;
            Call.Check(NativeMethods.qw_geo_hatch(outline, outline.Length, spacing, out segments, out segmentCount,
                                                  out sizes, out groupCount));
            Segment[] all = Call.TakeArray<Segment>(segments, segmentCount);
            int[] groupSizes = Call.TakeArray<int>(sizes, groupCount);
            var groups = new Segment[groupCount][];
            int next = 0;
            for (int g = 0; g < groupCount; ++g)
            {
                groups[g] = new Segment[groupSizes[g]];
                Array.Copy(all, next, groups[g], 0, groupSizes[g]);
                next += groupSizes[g];
            }
            return groups;
        }

        /// <summary>Camera position to device coordinates through the calibration points
        /// (exactly three, or a k x k grid row by row; any other count gives (0, 0)).</summary>
        public static Point Transform(CalibrationPoint[] calibration, float x, float y)
        {
            NotNull(calibration, "calibration");
            Point device;
            Call.Check(NativeMethods.qw_geo_transform(calibration, calibration.Length, x, y, out device));
            return device;
        }

        /// <summary>Transform for every camera point, in one call.</summary>
        public static Point[] TransformMany(CalibrationPoint[] calibration, Point[] camera)
        {
            NotNull(calibration, "calibration");
            NotNull(camera, "camera");
            var device = new Point[camera.Length];
            Call.Check(NativeMethods.qw_geo_transform_many(calibration, calibration.Length, camera, camera.Length, device));
            return device;
        }

        private static void NotNull(object value, string name)
        {
            if (value == null) throw new ArgumentNullException(name);
        }
    }

    /// <summary>CRC-16 with polynomial 0x1021, most significant bit first, no reflection and
    /// no final XOR.</summary>
    public static class Crc16
    {
        /// <summary>The start value of the device's block checksum.</summary>
        public const ushort AllOnes = 0xFFFF;
        /// <summary>Start value zero.</summary>
        public const ushort Zeros = 0x0000;
        /// <summary>The augmented start value.</summary>
        public const ushort Augmented = 0x1D0F;

        /// <summary>The CRC of the whole array.</summary>
        public static ushort Compute(byte[] data, ushort initial = AllOnes)
        {
            if (data == null) throw new ArgumentNullException("data");
            return Compute(data, 0, data.Length, initial);
        }

        /// <summary>The CRC of count bytes from offset (zero bytes count like any other).</summary>
        public static ushort Compute(byte[] data, int offset, int count, ushort initial = AllOnes)
        {
            if (data == null) throw new ArgumentNullException("data");
            if (offset < 0 || count < 0 || offset > data.Length - count)
                throw new ArgumentOutOfRangeException("count", "offset and count must lie within the array");
            GCHandle pin = GCHandle.Alloc(data, GCHandleType.Pinned);
            try
            {
                ushort crc;
                IntPtr start = count == 0 ? IntPtr.Zero : Marshal.UnsafeAddrOfPinnedArrayElement(data, offset);
                Call.Check(NativeMethods.qw_crc16(initial, start, count, out crc));
                return crc;
            }
            finally
            {
                pin.Free();
            }
        }
    }
}
