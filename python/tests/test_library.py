"""INI files, the checksum and geometry in batches, against the single-point calls."""

import random

import pytest

import quelworks


def test_ini_edit_round_trip(tmp_path):
    ini = quelworks.IniFile(tmp_path / "Gerät.ini")
    ini.create()
    ini.set("Port", "Name", "/dev/ttyUSB0")
    ini.set("Port", "Baud", 115200)
    ini.set("Motion", "Speed", "2.5")
    assert ini.get("Port", "Baud") == "115200"
    assert ini.get("Port", "Missing", "none") == "none"
    assert ini.sections() == ["Port", "Motion"]
    ini.delete("Port", "Name")
    assert not ini.has("Port", "Name")
    assert ini.content() == "[Port]\nBaud=115200\n[Motion]\nSpeed=2.5\n"


def test_ini_format_error_is_raised(tmp_path):
    path = tmp_path / "bad.ini"
    path.write_text("[open\nk=v\n")
    with pytest.raises(quelworks.Error):
        quelworks.IniFile(path).set("S", "k", "v")
    assert path.read_text() == "[open\nk=v\n"


def test_crc16_check_values():
    assert quelworks.crc16(b"123456789") == 0x29B1
    assert quelworks.crc16(b"123456789", initial=0) == 0x31C3


def test_batch_geometry_matches_single_calls():
    rng = random.Random(7)
    polygon = [(rng.uniform(0, 100), rng.uniform(0, 100)) for _ in range(12)]
    polygon.append(polygon[0])
    points = [(rng.uniform(-10, 110), rng.uniform(-10, 110)) for _ in range(500)]
    batch = quelworks.points_in_polygon(polygon, points)
    assert batch == [quelworks.point_in_polygon(polygon, x, y) for x, y in points]
    grid = [((x * 10.0, y * 10.0), (x * 21.0 + y, y * 19.0 - x)) for y in range(3) for x in range(3)]
    mapped = quelworks.transform_many(grid, points)
    assert mapped == [quelworks.transform(grid, x, y) for x, y in points]


def test_numpy_arrays_are_taken_and_returned():
    numpy = pytest.importorskip("numpy")
    square = numpy.array([[0, 0], [10, 0], [10, 10], [0, 10], [0, 0]], dtype=numpy.float32)
    inside = quelworks.points_in_polygon(square, numpy.array([[5.0, 5.0], [20.0, 5.0]]))
    assert inside.tolist() == [True, False]
    cal = [((0, 0), (10, 20)), ((1, 0), (12, 20)), ((0, 1), (10, 22))]
    assert quelworks.transform_many(cal, numpy.array([[3.0, 4.0]])).tolist() == [[16.0, 28.0]]


def test_port_details_follow_the_port_listing():
    details = quelworks.list_port_details()
    assert [port["name"] for port in details] == quelworks.list_ports()
    for port in details:
        assert set(port) >= {"name", "description", "vendor_id", "product_id", "serial_number"}
        assert port["vendor_id"] is None or 0 <= port["vendor_id"] <= 0xFFFF


def test_prepared_transformation_matches_the_one_shot_calls():
    # A distorted 5 x 5 grid; points on calibration points, on their x and y, and between them.
    grid = [((x * 10.0 + (x * y) % 3, y * 10.0 + (x + 2 * y) % 4),
             (x * 21.0 + y * y * 0.5, y * 19.0 - x * x * 0.25)) for y in range(5) for x in range(5)]
    points = [(c[0], c[1]) for c, _ in grid] + [(grid[7][0][0], 13.5), (25.0, 25.0), (-7.0, 61.0)]
    points += [(i * 1.37 - 5.0, i * 0.91 - 3.0) for i in range(60)]
    with quelworks.Transformation(grid) as prepared:
        assert prepared.usable
        single = [prepared.map(x, y) for x, y in points]
        assert single == [quelworks.transform(grid, x, y) for x, y in points]
        assert prepared.map_many(points) == single
    assert quelworks.transform_many(grid, points) == single
    with pytest.raises(quelworks.Error):
        prepared.map(1.0, 2.0)  # closed
    unusable = quelworks.Transformation(grid[:5])
    assert not unusable.usable and unusable.map(3.0, 4.0) == (0.0, 0.0)
    unusable.close()
